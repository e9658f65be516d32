#!/usr/bin/env bash
# What the idle daemon costs a laptop: its wake-ups per second and resident memory.
#
# Runs the real daemon on 127.0.0.1:986 and 127.94.0.1:986 in private network and mount
# namespaces (root), then watches it for WINDOW seconds in four states:
#   none        no connection at all;
#   keep-alive  100 keep-alive connections, each after one answered preflight, opened just before
#               the window and left idle (the front end's idle limit may close them in it);
#   gui         the GUI stand-in connected to the message channel and idle;
#   waiting     one call out to a GUI stand-in that never answers it (a GUI slow to answer).
# A wake-up is a context switch, voluntary or not, of any of the daemon's threads, summed from
# /proc/<pid>/task/*/status before and after the window. Prints the wake-ups, the wake-ups per
# second, the thread count and VmRSS at the end of each window.
#
#   bench/idle.sh                   # after: cmake --build --preset default
#   WINDOW=10 bench/idle.sh
#
# Settings (environment): BUILD_DIR (default build/default), WINDOW (30 seconds).
set -euo pipefail

if [ -z "${QB_IDLE_IN_NAMESPACES:-}" ]; then
    exec unshare --net --mount --fork env QB_IDLE_IN_NAMESPACES=1 "$0" "$@"
fi

root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build/default}
window=${WINDOW:-30}
for binary in "$build/vorbel-vpn-service" "$build/gui-standin"; do
    [ -x "$binary" ] || { echo "missing $binary: build it first (cmake --build --preset default)" >&2; exit 1; }
done
mount --make-rprivate /
mount -t tmpfs tmpfs /var/run
ip link set lo up

work=$(mktemp -d)
daemon_pid=""
helper_pid=""
cleanup() {
    [ -n "$helper_pid" ] && kill "$helper_pid" 2>/dev/null && wait "$helper_pid" 2>/dev/null || true
    [ -n "$daemon_pid" ] && kill "$daemon_pid" 2>/dev/null && wait "$daemon_pid" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

"$build/vorbel-vpn-service" 2> "$work/daemon.log" &
daemon_pid=$!
for _ in $(seq 100); do
    curl -s -o /dev/null -X OPTIONS http://127.0.0.1:986/vpn && break
    sleep 0.05
done

# Context switches of all the daemon's threads so far.
switches() {
    cat /proc/"$daemon_pid"/task/*/status 2>/dev/null |
        awk '/^(non)?voluntary_ctxt_switches:/ { total += $2 } END { print total + 0 }'
}

measure() {
    local name=$1
    sleep 1  # let whatever the set-up started settle
    local before after threads rss
    before=$(switches)
    sleep "$window"
    after=$(switches)
    threads=$(ls /proc/"$daemon_pid"/task | wc -l)
    rss=$(awk '/^VmRSS:/ { print $2 " " $3 }' /proc/"$daemon_pid"/status)
    printf '%-11s %8d wake-ups %8.2f /s %4d threads  VmRSS %s\n' "$name" "$((after - before))" \
        "$(echo "scale=2; ($after - $before) / $window" | bc)" "$threads" "$rss"
}

stop_helper() {
    kill "$helper_pid" 2>/dev/null && wait "$helper_pid" 2>/dev/null || true
    helper_pid=""
}

echo "daemon $daemon_pid, window ${window} s"
measure none

/usr/bin/python3 - "$window" <<'EOF' &
import socket, sys, time
connections = []
for _ in range(100):
    s = socket.create_connection(("127.0.0.1", 986))
    s.sendall(b"OPTIONS /vpn HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n")
    s.recv(4096)
    connections.append(s)
time.sleep(float(sys.argv[1]) + 5)
EOF
helper_pid=$!
measure keep-alive
stop_helper

"$build/gui-standin" --quiet > "$work/standin.log" 2>&1 &
helper_pid=$!
for _ in $(seq 100); do
    [ -S /var/run/com.kelvo.TunnelwrightService.socket ] && break
    sleep 0.05
done
sleep 1
measure gui
stop_helper

echo '{"state": {"noReply": true}}' > "$work/silent.json"
"$build/gui-standin" --quiet --answers "$work/silent.json" > "$work/standin.log" 2>&1 &
helper_pid=$!
sleep 1
curl -s -m "$((window + 5))" -o /dev/null --data-binary \
    '<?xml version="1.0"?><methodCall><methodName>state</methodName></methodCall>' \
    http://127.0.0.1:986/vpn &
call_pid=$!
measure waiting
kill "$call_pid" 2>/dev/null && wait "$call_pid" 2>/dev/null || true
stop_helper
