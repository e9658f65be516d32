#!/usr/bin/env bash
# Load test of the bridge's HTTP front end, side by side with nginx answering the same bytes.
#
# Starts tools/bridge-load-server (the real front end with fixed command answers) and nginx (the
# Debian package, as a foreground process with its own prefix and configuration in a temporary
# directory), both on high loopback ports, and drives each with wrk over keep-alive connections:
# an OPTIONS preflight and a POST of the XML-RPC call "state", with 1, 8 and 64 connections.
# Prints requests per second, the 50th and 99th percentile latencies, and ours/nginx.
#
#   bench/http_load.sh                 # after: cmake --build --preset default
#   DURATION=10s bench/http_load.sh    # longer runs
#
# Settings (environment): BUILD_DIR (default build/default), DURATION (5s), OURS_PORT (18986),
# NGINX_PORT (18987), CONNECTIONS ("1 8 64").
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build/default}
duration=${DURATION:-5s}
ours_port=${OURS_PORT:-18986}
nginx_port=${NGINX_PORT:-18987}
connections=${CONNECTIONS:-"1 8 64"}
server_bin=$build/bridge-load-server

for tool in wrk nginx curl; do
    command -v "$tool" >/dev/null || [ -x "/usr/sbin/$tool" ] || { echo "missing: $tool" >&2; exit 1; }
done
nginx_bin=$(command -v nginx || echo /usr/sbin/nginx)
[ -x "$server_bin" ] || { echo "missing $server_bin: build it first (cmake --build --preset default)" >&2; exit 1; }

work=$(mktemp -d)
ours_pid=""
nginx_pid=""
cleanup() {
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
# Appended to both scripts: one machine-readable line with req/s, p50 and p99 in microseconds
# and the count of errors (socket errors and non-2xx answers).
for script in options post; do
    cat >> "$work/$script.lua" <<'EOF'
function done(summary, latency, requests)
    local e = summary.errors
    io.write(string.format("RESULT %.0f %.0f %.0f %d\n",
        summary.requests / (summary.duration / 1e6), latency:percentile(50), latency:percentile(99),
        e.connect + e.read + e.write + e.status + e.timeout))
end
EOF
done

"$server_bin" "$ours_port" > "$work/ours.log" 2>&1 &
ours_pid=$!
"$nginx_bin" -p "$work/nginx" -c "$work/nginx/nginx.conf" > "$work/nginx.log" 2>&1 &
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

# Both must send the same document for the POST.
ours_body=$(curl -s --data-binary "$call" -H 'Content-Type: text/xml' "http://127.0.0.1:$ours_port/vpn" | od -An -c)
nginx_body=$(curl -s --data-binary "$call" -H 'Content-Type: text/xml' "http://127.0.0.1:$nginx_port/vpn" | od -An -c)
if [ "$ours_body" != "$nginx_body" ]; then
    echo "the two servers answer the POST differently" >&2
    exit 1
fi

run() {  # script port connections -> "req/s p50 p99 errors"
    local threads=$(( $3 < 2 ? 1 : 2 ))
    wrk -t"$threads" -c"$3" -d"$duration" -s "$work/$1.lua" "http://127.0.0.1:$2/vpn" | awk '/^RESULT/ {print $2, $3, $4, $5}'
}

printf '%-8s %5s | %10s %8s %8s | %10s %8s %8s | %6s\n' request conns "ours rq/s" "p50 us" "p99 us" "nginx rq/s" "p50 us" "p99 us" ratio
for script in options post; do
    for count in $connections; do
        read -r our_rate our_p50 our_p99 our_errors < <(run "$script" "$ours_port" "$count")
        read -r ng_rate ng_p50 ng_p99 ng_errors < <(run "$script" "$nginx_port" "$count")
        ratio=$(awk -v a="$our_rate" -v b="$ng_rate" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }')
        printf '%-8s %5s | %10s %8s %8s | %10s %8s %8s | %6s\n' "$script" "$count" \
            "$our_rate" "$our_p50" "$our_p99" "$ng_rate" "$ng_p50" "$ng_p99" "$ratio"
        if [ "$our_errors" != 0 ] || [ "$ng_errors" != 0 ]; then
            echo "  errors: ours $our_errors, nginx $ng_errors" >&2
        fi
    done
done
