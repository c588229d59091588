#!/bin/sh
# The Debian package, built once and then installed into a throwaway root.
#   package_deb.sh build SOURCE OUTDIR
#       builds OUTDIR/pellin-mgr_*.deb (packaging/build_deb.sh; a package
#       of the same tree is reused)
#   package_deb.sh check SOURCE OUTDIR MODULE_NAMES
#       installs it with dpkg --root into a root of its own (a shell for the
#       maintainer scripts, its own dpkg database) and checks the files and their modes, the unit
#       (systemd-analyze verify, pointed at the root's daemon), the
#       installed lhctl and lhsim, the manual pages and the completion
#       (tool_docs.sh), and the logrotate rule on a log held open.
# Exit 77 (skipped) with the reason when the package or the root cannot be
# had here.
set -eu
mode=$1 source=$2 out=$3
tests=$(cd "$(dirname "$0")" && pwd)
skip() { echo "skipped: $*"; exit 77; }

if [ "$mode" = build ]; then
    command -v dpkg-buildpackage >/dev/null 2>&1 || skip "no dpkg-buildpackage here"
    unmet=$(cd "$source" && dpkg-checkbuilddeps 2>&1) ||
        skip "${unmet#dpkg-checkbuilddeps: error: }"
    exec sh "$source/packaging/build_deb.sh" "$source" "$out"
fi

module_names=$4
deb=$(ls "$out"/pellin-mgr_*.deb 2>/dev/null | head -n 1 || true)
[ -n "$deb" ] || skip "no package in $out (its build was skipped)"
[ "$(id -u)" -eq 0 ] || skip "dpkg --root needs root to give the files their owners"
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
chmod 755 "$root"

passed=0 failed=0
fail() { echo "FAILED: $*" >&2; failed=$((failed + 1)); }
pass() { passed=$((passed + 1)); }
check() { # what, then the command
    what=$1; shift
    if "$@"; then pass; else fail "$what"; fi
}

# The root has a shell and the libraries it needs, so that dpkg can run
# the maintainer scripts inside it; systemd's tools (deb-systemd-helper)
# are not there, and the scripts leave the host's systemd alone.
shell=$(readlink -f /bin/sh)
for file in "$shell" $(ldd "$shell" | grep -o '/[^ ]*'); do
    mkdir -p "$root$(dirname "$file")"
    cp -L "$file" "$root$file"
done
mkdir -p "$root/bin"
[ -e "$root/bin/sh" ] || ln -s "$shell" "$root/bin/sh"
admin=$root/var/lib/dpkg
mkdir -p "$admin/info" "$admin/updates" "$admin/triggers"
: >"$admin/status"
: >"$admin/available"
(cd "$root" && find . ! -type d) | sort >"$root/before"
# The root's database has no libraries: their names are checked below.
dpkg --root="$root" --force-depends --install "$deb" >"$root/dpkg.log" 2>&1 || {
    cat "$root/dpkg.log"
    skip "dpkg cannot install into a throwaway root here"
}
check "dpkg does not record the package as installed" \
    test "$(dpkg-query --admindir="$admin" -W -f='${Status}' pellin-mgr)" = \
         "install ok installed"
# The libraries the programs link, found by dpkg-shlibdeps.
for library in libc6 libstdc++6 libpciaccess0 libsafec3 libprometheus-cpp-core; do
    check "the package does not depend on $library" \
        sh -c 'dpkg-deb -f "$1" Depends | tr "," "\n" | grep -q "^ *$2"' sh "$deb" "$library"
done
check "the logrotate rule is not a conffile" \
    grep -qx '/etc/logrotate.d/pellin-mgr' "$admin/info/pellin-mgr.conffiles"

check "the log directory is not made at boot" \
    grep -qx 'd /opt/orvel/platform/logs 0755 root root -' \
    "$root/usr/lib/tmpfiles.d/pellin-mgr.conf"

# Every file the package brought, its mode and owner; the unit directory
# is /lib or /usr/lib as the distribution has it.
unit=$(ls "$root"/lib/systemd/system/pellin_mgr.service \
          "$root"/usr/lib/systemd/system/pellin_mgr.service 2>/dev/null | head -n 1)
unit_dir=$(dirname "${unit#"$root"/}")
{
    for file in usr/sbin/pellin_mgr usr/sbin/keeper_svc usr/bin/lhctl usr/bin/lhsim; do
        echo "755 root:root ./$file"
    done
    for file in "$unit_dir/pellin_mgr.service" etc/logrotate.d/pellin-mgr \
        usr/lib/tmpfiles.d/pellin-mgr.conf \
        usr/share/bash-completion/completions/lhctl \
        usr/share/man/man1/lhctl.1.gz usr/share/man/man1/lhsim.1.gz \
        usr/share/man/man8/pellin_mgr.8.gz usr/share/man/man8/keeper_svc.8.gz \
        usr/share/doc/pellin-mgr/README.md usr/share/doc/pellin-mgr/changelog.gz \
        usr/share/doc/pellin-mgr/copyright; do
        echo "644 root:root ./$file"
    done
    for doc in "$source"/docs/*; do
        echo "644 root:root ./usr/share/doc/pellin-mgr/${doc##*/}"
    done
} | sort >"$root/expected"
(cd "$root" && find . -path ./var -prune -o ! -type d -print) | sort |
    comm -13 "$root/before" - | grep -vx './before\|./dpkg.log\|./expected\|./found' |
    (cd "$root" && xargs stat -c '%a %U:%G %n') | sort >"$root/found"
check "the package's files differ: $(diff "$root/expected" "$root/found" | grep '^[<>]' | tr '\n' ' ')" \
    cmp -s "$root/expected" "$root/found"

# The unit starts the installed daemon and passes systemd's analyser with
# ExecStart pointed into the root; its man: link finds the root's page.
check "the unit does not start /usr/sbin/pellin_mgr" \
    grep -qx 'ExecStart=/usr/sbin/pellin_mgr' "$unit"
for doc in $(sed -n 's|^Documentation=file://||p' "$unit"); do
    check "the unit's document $doc is not installed" test -f "$root$doc"
done
if command -v systemd-analyze >/dev/null 2>&1; then
    sed "s|^ExecStart=/usr/sbin/pellin_mgr|ExecStart=$root/usr/sbin/pellin_mgr|" \
        "$unit" >"$root/pellin_mgr.service"
    check "systemd-analyze rejects the installed unit" \
        env MANPATH="$root/usr/share/man" systemd-analyze verify "$root/pellin_mgr.service"
    rm -f "$root/pellin_mgr.service"
else
    echo "note: no systemd-analyze here; the unit is not verified"
fi

# The installed programs run from their installed paths.
check "the installed lhctl --help fails or changed its first line" \
    test "$("$root/usr/bin/lhctl" --help | head -n 1)" = \
         "usage: lhctl [--socket PATH] [--timeout SECONDS] [--json] COMMAND ..."
check "the installed lhsim --help fails" \
    sh -c '"$1" --help >/dev/null' sh "$root/usr/bin/lhsim"

# The installed pages and completion follow the installed programs.
check "tool_docs.sh on the installed files" \
    sh "$tests/tool_docs.sh" "$root/usr/bin/lhctl" "$root/usr/bin/lhsim" \
        "$module_names" "$source/tools/lhctl/lhctl.hpp" \
        "$root/usr/share/man/man1/lhctl.1.gz" "$root/usr/share/man/man1/lhsim.1.gz" \
        "$root/usr/share/bash-completion/completions/lhctl"

# The logrotate rule, on a copy of the log directory: the daemon's log,
# held open in append mode as the daemon holds it, is copied and
# truncated, and the next line lands at its start; a dump stays as it is.
if command -v logrotate >/dev/null 2>&1; then
    logs=$root/logs
    mkdir -m 755 "$logs"
    sed "s|/opt/orvel/platform/logs/|$logs/|" "$root/etc/logrotate.d/pellin-mgr" \
        >"$root/logrotate.conf"
    printf 'line 1\nline 2\n' >"$logs/pellin_mgr.log"
    echo dump >"$logs/lark_hollow_dump__Nov-21-2026__08-39-56-PM.log"
    exec 3>>"$logs/pellin_mgr.log"
    logrotate --force --state "$root/logrotate.state" "$root/logrotate.conf" ||
        fail "logrotate fails on the rule"
    echo "line 3" >&3
    exec 3>&-
    check "the rotated log is not the old one" \
        test "$(cat "$logs/pellin_mgr.log.1" 2>/dev/null)" = "$(printf 'line 1\nline 2')"
    check "the log open across the rotation does not start afresh" \
        test "$(cat "$logs/pellin_mgr.log")" = "line 3"
    check "the rotation touched the dump" \
        test "$(ls "$logs" | tr '\n' ' ')" = \
             "lark_hollow_dump__Nov-21-2026__08-39-56-PM.log pellin_mgr.log pellin_mgr.log.1 "
else
    echo "note: no logrotate here; the rule is not tried"
fi

echo "package: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
