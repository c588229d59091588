#!/bin/sh
# make run, as a user at a terminal runs it: the board line and the commands
# to try come first, the daemon comes up on the simulated board, lhctl
# reaches it, and Ctrl-C typed on the terminal stops it cleanly: lhsim says
# so, make exits 0, nothing stays mounted and the board is removed.
#   make_run.sh SOURCE_DIR BUILD_DIR
# Exits 77 (skipped) when this host cannot give the daemon its sandbox.
set -u
src=$1
build=$2
work=$(mktemp -d)
out=$work/out
keys=$work/keys
pid=

cleanup() {
    [ -n "$pid" ] && /bin/kill -s KILL -- "-$pid" 2>/dev/null
    exec 3>&- 2>/dev/null
    rm -rf "$work"
}

fail() {
    echo "make run: $*" >&2
    sed 's/^/  | /' "$out" >&2
    cleanup
    exit 1
}

# What the terminal showed, without the carriage returns it adds.
shown() {
    tr -d '\r' <"$out"
}

# script gives make a terminal of its own; what is written to $keys is
# typed on it.
mkfifo "$keys"
: >"$out"
setsid script -qfec "make -s -C '$src' run BUILD='$build'" /dev/null \
    <"$keys" >"$out" 2>&1 &
pid=$!
exec 3>"$keys"

socket=
for _ in $(seq 1200); do
    socket=$(shown | sed -n 's/^lhsim: .* socket \(.*\)$/\1/p' | head -n 1)
    [ -n "$socket" ] && [ -S "$socket" ] && break
    if ! kill -0 "$pid" 2>/dev/null; then
        if shown | grep -q '^lhsim: the sandbox cannot be entered here'; then
            shown | grep '^lhsim: the sandbox' | sed 's/^lhsim: /skipped: /'
            cleanup
            exit 77
        fi
        fail "ended before the daemon's socket appeared"
    fi
    sleep 0.1
done
[ -S "$socket" ] || fail "no daemon socket"
board=${socket%/run/ipc/219.sock}

# The board line is the first thing read, then the commands to try.
first=$(shown | grep -v '^make: building in ' | head -n 1)
case $first in
"lhsim: base2 board in $board; socket $socket") ;;
*) fail "first line: $first" ;;
esac
shown | grep -qxF "lhsim:   $build/bin/lhctl --socket $socket modules" ||
    fail "no lhctl command with this run's socket"
shown | grep -qxF \
    "lhsim:   $build/bin/lhsim fatal $board caui 1 \"TX Buffer FIFO Underflow\"" ||
    fail "no lhsim fatal command with this run's board"

for _ in $(seq 50); do
    "$build/bin/lhctl" --socket "$socket" pipes >/dev/null 2>&1 && break
    sleep 0.1
done
pipes=$("$build/bin/lhctl" --socket "$socket" --json pipes) ||
    fail "lhctl pipes failed"
echo "$pipes" | grep -q '"pipe": *1' || fail "lhctl pipes: $pipes"
for _ in $(seq 50); do
    shown | grep -q 'PELLIN MGR: Pellin Manager IPC server thread started' &&
        break
    sleep 0.1
done
shown | grep -q 'PELLIN MGR: Pellin Manager IPC server thread started' ||
    fail "the daemon's log did not reach the terminal"

printf '\003' >&3
for _ in $(seq 100); do
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
done
kill -0 "$pid" 2>/dev/null && fail "still running after Ctrl-C"
wait "$pid"
status=$?
pid=

[ "$status" -eq 0 ] || fail "make run exited $status after Ctrl-C"
shown | grep -qxF "lhsim: stopped; the board is removed" ||
    fail "no word that the run stopped"
shown | grep -q 'Error 130' && fail "make reported the stop as an error"
grep -q "$board" /proc/self/mountinfo && fail "$board is still mounted"
[ -e "$board" ] && fail "$board is still there"
# A daemon that outlived Ctrl-C would still see the board's mounts.
for daemon in $(pgrep -f "$build/bin/pellin_mgr"); do
    grep -q "$board" "/proc/$daemon/mountinfo" 2>/dev/null &&
        fail "pellin_mgr $daemon still runs on $board"
done
cleanup
echo "make run: 1 passed, 0 failed"
