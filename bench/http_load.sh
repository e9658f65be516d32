#!/usr/bin/env bash
# Load test of the bridge's HTTP front end, side by side with nginx answering the same bytes.
#
# Starts tools/bridge-load-server (the real front end with fixed command answers) and nginx (the
# Debian package, as a foreground process with its own prefix and configuration in a temporary
# directory), both on high loopback ports, and drives each with wrk over keep-alive connections:
# an OPTIONS preflight and a POST of the XML-RPC call "state", with 1, 8 and 64 connections.
# Prints requests per second, the 50th and 99th percentile latencies, the server's CPU time per
# request (user + system, all its threads or processes), and ours/nginx in requests per second.
# With REPEAT > 1 each pair of runs is repeated and the run with the median rate is shown: on a
# shared machine single runs vary a lot, CPU per request much less.
#
# MODE=bridge measures the whole bridge instead: the real daemon on 127.0.0.1:986 with the GUI
# stand-in (tools/gui-standin) answering every "state" over the message channel, only the POST,
# the CPU time of both counted as ours. It runs in private network and mount namespaces (root),
# so the daemon has its real port and socket path and nothing outside is touched.
#
#   bench/http_load.sh                      # after: cmake --build --preset default
#   REPEAT=3 DURATION=3s bench/http_load.sh
#   MODE=bridge REPEAT=3 DURATION=3s bench/http_load.sh
#
# CPUS=0 keeps every process of the run (the servers, the stand-in and wrk) on processor 0, so
# that a hop from one process to the next is a switch on one processor instead of a wake-up of
# another, sleeping one: what the same work costs where waking a processor is cheap.
#
# Settings (environment): BUILD_DIR (default build/default), DURATION (5s), REPEAT (1),
# OURS_PORT (18986), NGINX_PORT (18987), CONNECTIONS ("1 8 64"), MODE (front or bridge),
# CPUS (unset: no pinning; otherwise a taskset processor list).
set -euo pipefail

mode=${MODE:-front}
if [ "$mode" = bridge ] && [ -z "${QB_LOAD_IN_NAMESPACES:-}" ]; then
    exec unshare --net --mount --fork env QB_LOAD_IN_NAMESPACES=1 "$0" "$@"
fi

root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build/default}
duration=${DURATION:-5s}
ours_port=${OURS_PORT:-18986}
nginx_port=${NGINX_PORT:-18987}
connections=${CONNECTIONS:-"1 8 64"}
repeat=${REPEAT:-1}
pin=()
[ -n "${CPUS:-}" ] && pin=(taskset -c "$CPUS")
server_bin=$build/bridge-load-server
scripts="options post"
if [ "$mode" = bridge ]; then
    server_bin=$build/vorbel-vpn-service
    ours_port=986
    scripts=post
    mount --make-rprivate /
    mount -t tmpfs tmpfs /var/run
    ip link set lo up
fi

for tool in wrk nginx curl; do
    command -v "$tool" >/dev/null || [ -x "/usr/sbin/$tool" ] || { echo "missing: $tool" >&2; exit 1; }
done
nginx_bin=$(command -v nginx || echo /usr/sbin/nginx)
for binary in "$server_bin" "$build/gui-standin"; do
    [ -x "$binary" ] || { echo "missing $binary: build it first (cmake --build --preset default)" >&2; exit 1; }
done

work=$(mktemp -d)
ours_pid=""
standin_pid=""
nginx_pid=""
cleanup() {
    [ -n "$standin_pid" ] && kill "$standin_pid" 2>/dev/null && wait "$standin_pid" 2>/dev/null || true
    [ -n "$ours_pid" ] && kill "$ours_pid" 2>/dev/null && wait "$ours_pid" 2>/dev/null || true
    [ -n "$nginx_pid" ] && kill -QUIT "$nginx_pid" 2>/dev/null && wait "$nginx_pid" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# The exact response document of a "state" call answered "connected" (CR LF line ends, as ours).
response='<?xml version="1.0" encoding="utf-8" ?>\r\n<methodResponse>\r\n  <params>\n    <param>\r\n      <value><string>connected</string></value>\r\n    </param>\r\n  </params>\r\n</methodResponse>\r\n'
call='<?xml version="1.0"?><methodCall><methodName>state</methodName><params></params></methodCall>'

mkdir -p "$work/nginx/logs"
cat > "$work/nginx/nginx.conf" <<EOF
daemon off;
worker_processes auto;
pid $work/nginx/nginx.pid;
error_log $work/nginx/logs/error.log warn;
events { worker_connections 1024; }
http {
    access_log off;
    client_body_temp_path $work/nginx/body;
    proxy_temp_path $work/nginx/proxy;
    fastcgi_temp_path $work/nginx/fastcgi;
    uwsgi_temp_path $work/nginx/uwsgi;
    scgi_temp_path $work/nginx/scgi;
    keepalive_requests 100000000;
    server_tokens off;
    server {
        listen 127.0.0.1:$nginx_port;
        location = /vpn {
            default_type text/xml;
            if (\$request_method = OPTIONS) {
                add_header Access-Control-Allow-Headers "Origin, X-Requested-With, Content-Type, Accept";
                add_header Access-Control-Allow-Methods "POST, OPTIONS";
                add_header Access-Control-Allow-Origin "*";
                add_header Pragma no-cache;
                add_header Cache-Control no-cache;
                return 200 "";
            }
            add_header Access-Control-Allow-Origin "*";
            add_header Pragma no-cache;
            add_header Cache-Control no-cache;
            return 200 '$response';
        }
    }
}
EOF

cat > "$work/options.lua" <<'EOF'
wrk.method = "OPTIONS"
wrk.path = "/vpn"
EOF
cat > "$work/post.lua" <<EOF
wrk.method = "POST"
wrk.path = "/vpn"
wrk.headers["Content-Type"] = "text/xml"
wrk.body = '$call'
EOF
# Appended to both scripts: one machine-readable line with req/s, p50 and p99 in microseconds,
# the count of errors (socket errors and non-2xx answers) and the count of requests.
for script in options post; do
    cat >> "$work/$script.lua" <<'EOF'
function done(summary, latency, requests)
    local e = summary.errors
    io.write(string.format("RESULT %.0f %.0f %.0f %d %d\n",
        summary.requests / (summary.duration / 1e6), latency:percentile(50), latency:percentile(99),
        e.connect + e.read + e.write + e.status + e.timeout, summary.requests))
end
EOF
done

if [ "$mode" = bridge ]; then
    echo '{"state": {"content": {"result": "connected"}}}' > "$work/answers.json"
    "${pin[@]}" "$server_bin" > "$work/ours.log" 2>&1 &
    ours_pid=$!
    "${pin[@]}" "$build/gui-standin" --quiet --answers "$work/answers.json" > "$work/standin.log" 2>&1 &
    standin_pid=$!
else
    "${pin[@]}" "$server_bin" "$ours_port" > "$work/ours.log" 2>&1 &
    ours_pid=$!
fi
"${pin[@]}" "$nginx_bin" -p "$work/nginx" -c "$work/nginx/nginx.conf" > "$work/nginx.log" 2>&1 &
nginx_pid=$!

wait_until_up() {
    for _ in $(seq 100); do
        curl -s -o /dev/null -X OPTIONS "http://127.0.0.1:$1/vpn" && return 0
        sleep 0.05
    done
    echo "server on port $1 did not start" >&2
    cat "$work"/*.log "$work/nginx/logs/error.log" >&2 2>/dev/null || true
    exit 1
}
wait_until_up "$ours_port"
wait_until_up "$nginx_port"
if [ "$mode" = bridge ]; then  # until the stand-in has connected and answers
    for _ in $(seq 100); do
        curl -s -m 1 --data-binary "$call" "http://127.0.0.1:$ours_port/vpn" | grep -q connected && break
        sleep 0.05
    done
fi

# Both must send the same document for the POST.
ours_body=$(curl -s --data-binary "$call" -H 'Content-Type: text/xml' "http://127.0.0.1:$ours_port/vpn" | od -An -c)
nginx_body=$(curl -s --data-binary "$call" -H 'Content-Type: text/xml' "http://127.0.0.1:$nginx_port/vpn" | od -An -c)
if [ "$ours_body" != "$nginx_body" ]; then
    echo "the two servers answer the POST differently" >&2
    exit 1
fi

cpu_ticks() {  # user + system clock ticks of the processes and their children processes
    local total=0 pid
    for pid in $1 $(for parent in $1; do pgrep -P "$parent" || true; done); do
        total=$(( total + $(awk '{print $14 + $15}' "/proc/$pid/stat") ))
    done
    echo "$total"
}
ticks_per_second=$(getconf CLK_TCK)

run_once() {  # script port pids connections -> "req/s p50 p99 errors cpu-us-per-request"
    local threads=$(( $4 < 2 ? 1 : 2 )) before after
    before=$(cpu_ticks "$3")
    local result
    result=$("${pin[@]}" wrk -t"$threads" -c"$4" -d"$duration" -s "$work/$1.lua" "http://127.0.0.1:$2/vpn" | awk '/^RESULT/')
    after=$(cpu_ticks "$3")
    echo "$result" | awk -v t=$(( after - before )) -v hz="$ticks_per_second" \
        '{ printf "%s %s %s %s %.1f\n", $2, $3, $4, $5, ($6 > 0 ? t * 1e6 / hz / $6 : 0) }'
}

run() {  # script port pid connections -> the run with the median rate of REPEAT runs
    for _ in $(seq "$repeat"); do run_once "$@"; done | sort -n | awk '{ line[NR] = $0 } END { print line[int((NR + 1) / 2)] }'
}

printf '%-7s %5s | %9s %6s %6s %6s | %9s %6s %6s %6s | %5s\n' request conns \
    "ours rq/s" "p50us" "p99us" "cpu/rq" "nginx" "p50us" "p99us" "cpu/rq" ratio
for script in $scripts; do
    for count in $connections; do
        read -r our_rate our_p50 our_p99 our_errors our_cpu < <(run "$script" "$ours_port" "$ours_pid $standin_pid" "$count")
        read -r ng_rate ng_p50 ng_p99 ng_errors ng_cpu < <(run "$script" "$nginx_port" "$nginx_pid" "$count")
        ratio=$(awk -v a="$our_rate" -v b="$ng_rate" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }')
        printf '%-7s %5s | %9s %6s %6s %6s | %9s %6s %6s %6s | %5s\n' "$script" "$count" \
            "$our_rate" "$our_p50" "$our_p99" "$our_cpu" "$ng_rate" "$ng_p50" "$ng_p99" "$ng_cpu" "$ratio"
        if [ "$our_errors" != 0 ] || [ "$ng_errors" != 0 ]; then
            echo "  errors: ours $our_errors, nginx $ng_errors" >&2
        fi
    done
done
