#!/bin/sh
# cmake --install puts the service and its controller in sbin, the tools in
# bin, the systemd unit, naming the installed daemon, under lib, and the
# manual pages and lhctl's bash completion under share.
set -eu
build=$1
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build" --prefix "$prefix" >/dev/null
for file in sbin/pellin_mgr sbin/keeper_svc bin/lhctl bin/lhsim; do
    [ -x "$prefix/$file" ] || { echo "missing $file" >&2; exit 1; }
done
for file in share/man/man1/lhctl.1 share/man/man1/lhsim.1 \
    share/man/man8/pellin_mgr.8 share/man/man8/keeper_svc.8 \
    share/bash-completion/completions/lhctl; do
    [ -f "$prefix/$file" ] || { echo "missing $file" >&2; exit 1; }
done
unit="$prefix/lib/systemd/system/pellin_mgr.service"
[ -f "$unit" ] || { echo "missing the systemd unit" >&2; exit 1; }
grep -qx 'ExecStart=.*/sbin/pellin_mgr' "$unit" || {
    echo "the unit does not start the daemon" >&2
    exit 1
}
# Where systemd's analyser is at hand, the unit must pass it (pointed at
# the daemon and the manual page just installed).
if command -v systemd-analyze >/dev/null 2>&1; then
    sed "s|^ExecStart=.*|ExecStart=$prefix/sbin/pellin_mgr|" "$unit" \
        >"$prefix/pellin_mgr.service"
    MANPATH="$prefix/share/man" systemd-analyze verify "$prefix/pellin_mgr.service" || {
        echo "systemd-analyze rejects the unit" >&2
        exit 1
    }
fi
echo "install layout: 1 passed, 0 failed"
