#!/bin/sh
# make run: the daemon comes up on a simulated board, lhctl reaches it, and
# Ctrl-C (SIGINT to the process group, as a terminal sends it) stops it
# with nothing left mounted and the board removed.
#   make_run.sh SOURCE_DIR BUILD_DIR
set -u
src=$1
build=$2
out=$(mktemp)
pid=

fail() {
    echo "make run: $*" >&2
    sed 's/^/  | /' "$out" >&2
    [ -n "$pid" ] && /bin/kill -s KILL -- "-$pid" 2>/dev/null
    rm -f "$out"
    exit 1
}

setsid make -s -C "$src" run BUILD="$build" >"$out" 2>&1 &
pid=$!

socket=
for _ in $(seq 600); do
    socket=$(sed -n 's/^lhsim: .* socket \(.*\)$/\1/p' "$out" | head -n 1)
    [ -n "$socket" ] && [ -S "$socket" ] && break
    sleep 0.1
done
[ -S "$socket" ] || fail "no daemon socket"
board=${socket%/run/ipc/219.sock}

for _ in $(seq 50); do
    "$build/bin/lhctl" --socket "$socket" pipes >/dev/null 2>&1 && break
    sleep 0.1
done
pipes=$("$build/bin/lhctl" --socket "$socket" --json pipes) ||
    fail "lhctl pipes failed"
echo "$pipes" | grep -q '"pipe": *1' || fail "lhctl pipes: $pipes"
for _ in $(seq 50); do
    grep -q 'PELLIN MGR: Pellin Manager IPC server thread started' "$out" &&
        break
    sleep 0.1
done
grep -q 'PELLIN MGR: Pellin Manager IPC server thread started' "$out" ||
    fail "the daemon's log did not reach the terminal"

/bin/kill -s INT -- "-$pid"
for _ in $(seq 100); do
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
done
kill -0 "$pid" 2>/dev/null && fail "still running after Ctrl-C"
wait "$pid" 2>/dev/null

grep -q "$board" /proc/self/mountinfo && fail "$board is still mounted"
[ -e "$board" ] && fail "$board is still there"
# A daemon that outlived Ctrl-C would still see the board's mounts.
for daemon in $(pgrep -f "$build/bin/pellin_mgr"); do
    grep -q "$board" "/proc/$daemon/mountinfo" 2>/dev/null &&
        fail "pellin_mgr $daemon still runs on $board"
done
rm -f "$out"
echo "make run: 1 passed, 0 failed"
