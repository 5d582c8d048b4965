#!/usr/bin/env bash
# Requests/s and CPU per request of POST /v2/place on tovrel-server against nginx answering the same
# POST (a fixed 200, or the very same bytes), both on 127.0.0.1 and measured with wrk (2 threads, 8
# and 64 connections). Starts both servers on free ports with their own files in a temporary folder
# and stops them afterwards. CI runs it in its smoke mode only.
set -euo pipefail
cd "$(dirname "$0")/../.."
source bench/server/common.sh

usage() {
    cat <<'USAGE'
Usage: bench/server/run_endpoint_vs_nginx.sh [--smoke] [--help]

Installs nginx and wrk if missing, builds tovrel-server in $BUILD_DIR (default build/server), loads
examples/places/munich.geojson and measures two place queries from the old town centre:
  component  distanceThreshold "8047" (every old-town offer, as the component asks: 40 records),
             against nginx sending the very same bytes at 8 and at 64 connections, and against
             nginx returning {"status":1} at 8
  small      distanceThreshold "60" (one or two offers) against {"status":1} at 8
Each is run RUNS times (default 5) for DURATION (default 5s), alternating with nginx; the medians of
both and the median of the per-pair ratios are shown (pairs make a shared, busy machine less unfair).
CPU per request is each server's user + system time over the wrk run (from /proc/PID/stat: every
thread of tovrel-server; nginx's master and its workers) divided by the requests wrk completed.
--smoke: one pair of one second each.
Environment: BUILD_DIR, RUNS, DURATION, SERVER_THREADS (default 2).
USAGE
}
[[ "${1:-}" == "--help" || "${1:-}" == "-h" ]] && { usage; exit 0; }
[[ "${1:-}" == "--smoke" ]] && RUNS=1 DURATION=1s

BUILD_DIR=${BUILD_DIR:-build/server}
RUNS=${RUNS:-5}
DURATION=${DURATION:-5s}
install_packages nginx wrk
build_targets "$BUILD_DIR" tovrel-server

tmp=$(mktemp -d)
stop_on_exit "$tmp"

server="$BUILD_DIR/server/tovrel-server"
"$server" import examples/places/munich.geojson --db "$tmp/bench.db" >/dev/null
server_port=$(free_port)
# nginx runs without an access log, so the server does too.
"$server" serve --db "$tmp/bench.db" --listen "127.0.0.1:$server_port" --content examples/content \
    --admin-listen off --access-log off --threads "${SERVER_THREADS:-2}" >"$tmp/server.log" 2>&1 &
server_pid=$!
pids+=($!)
wait_for_port "$server_port"

key=$(curl -s -X POST "http://127.0.0.1:$server_port/v1/session" -H 'Content-Type: application/json' \
    -d '{"deviceId":"BENCH-DEVICE","deviceType":"iOS","deviceModel":"iPhone","sdkkey":"demo-key"}' |
    python3 -c 'import json, sys; print(json.load(sys.stdin)["sessionKey"])')

body_for() {
    echo "{\"sessionKey\":\"$key\",\"coordinatesList\":[{\"lat\":\"48.137154\",\"lon\":\"11.575400\"}],\"distanceThreshold\":\"$1\"}"
}

mkdir -p "$tmp/nginx/logs" "$tmp/nginx/www"
curl -s -X POST "http://127.0.0.1:$server_port/v2/place" -H 'Content-Type: application/json' \
    -d "$(body_for 8047)" >"$tmp/nginx/www/answer.json"
# nginx's workers drop root privileges; they must still read the answer.
chmod a+x "$tmp" "$tmp/nginx"
chmod -R a+rX "$tmp/nginx/www"

nginx_port=$(free_port)
cat >"$tmp/nginx/nginx.conf" <<CONF
worker_processes 2;
daemon off;
pid $tmp/nginx/nginx.pid;
error_log $tmp/nginx/logs/error.log warn;
events { worker_connections 1024; }
http {
    access_log off;
    client_body_temp_path $tmp/nginx/body;
    proxy_temp_path $tmp/nginx/proxy;
    fastcgi_temp_path $tmp/nginx/fastcgi;
    uwsgi_temp_path $tmp/nginx/uwsgi;
    scgi_temp_path $tmp/nginx/scgi;
    keepalive_requests 1000000;
    open_file_cache max=16;
    default_type application/json;
    server {
        listen 127.0.0.1:$nginx_port;
        location = /fixed { return 200 '{"status":1}'; }
        # Static files refuse POST: the 405 is turned into the file, fetched as a GET.
        location = /same-bytes { error_page 405 =200 /answer.json; return 405; }
        location = /answer.json { internal; root $tmp/nginx/www; }
    }
}
CONF
nginx -p "$tmp/nginx" -c "$tmp/nginx/nginx.conf" &
nginx_pid=$!
pids+=($!)
wait_for_port "$nginx_port"

# wrk_run URL BODY CONNECTIONS PID: "requests/s µs-of-CPU-per-request" of one wrk run posting BODY.
wrk_run() {
    cat >"$tmp/post.lua" <<LUA
wrk.method = "POST"
wrk.body = '$2'
wrk.headers["Content-Type"] = "application/json"
LUA
    local out before after
    before=$(cpu_ticks "$4")
    out=$(wrk -t2 -c"$3" -d"$DURATION" -s "$tmp/post.lua" "$1")
    after=$(cpu_ticks "$4")
    if grep -q "Non-2xx" <<<"$out"; then
        echo "wrk saw errors from $1:" >&2
        echo "$out" >&2
        exit 1
    fi
    local rate requests
    rate=$(awk '/Requests\/sec/ {print $2}' <<<"$out")
    requests=$(awk '/requests in/ {print $1}' <<<"$out")
    awk -v r="$rate" -v n="$requests" -v t=$((after - before)) -v hz="$clk_tck" \
        'BEGIN {printf "%s %.1f\n", r, t / hz * 1e6 / n}'
}

# measure NAME THRESHOLD CONNECTIONS NGINX_PATH...: RUNS pairs of wrk runs, the server then nginx.
measure() {
    local name=$1 threshold=$2 connections=$3
    shift 3
    local body records bytes
    body=$(body_for "$threshold")
    records=$(curl -s -X POST "http://127.0.0.1:$server_port/v2/place" -H 'Content-Type: application/json' \
        -d "$body" | python3 -c 'import json, sys; print(len(json.load(sys.stdin)["places"]))')
    bytes=$(curl -s -X POST "http://127.0.0.1:$server_port/v2/place" -H 'Content-Type: application/json' \
        -d "$body" | wc -c)
    printf '%s: distanceThreshold %s m, %d records, %d bytes, %d connections\n' "$name" "$threshold" \
        "$records" "$bytes" "$connections"
    for path in "$@"; do
        local ours=() theirs=() ratios=() ourCpu=() theirCpu=() a b
        for _ in $(seq "$RUNS"); do
            read -r a ac < <(wrk_run "http://127.0.0.1:$server_port/v2/place" "$body" "$connections" "$server_pid")
            read -r b bc < <(wrk_run "http://127.0.0.1:$nginx_port$path" "$body" "$connections" "$nginx_pid")
            ours+=("$a")
            theirs+=("$b")
            ourCpu+=("$ac")
            theirCpu+=("$bc")
            ratios+=("$(awk -v a="$a" -v b="$b" 'BEGIN {printf "%.2f", a / b}')")
        done
        local oc tc
        oc=$(median "${ourCpu[@]}")
        tc=$(median "${theirCpu[@]}")
        printf '  tovrel-server /v2/place     %8.0f req/s %6.1f us CPU/request (runs: %s)\n' \
            "$(median "${ours[@]}")" "$oc" "${ours[*]}"
        printf '  nginx %-21s %8.0f req/s %6.1f us CPU/request (runs: %s)\n' "$path" \
            "$(median "${theirs[@]}")" "$tc" "${theirs[*]}"
        printf '  ratio (median of the pairs) %8.2f       CPU %.2fx nginx'"'"'s (pairs: %s)\n' \
            "$(median "${ratios[@]}")" "$(awk -v a="$oc" -v b="$tc" 'BEGIN {print (b > 0) ? a / b : 0}')" \
            "${ratios[*]}"
    done
}

# /same-bytes answers exactly what the server answers for 8047 m; /fixed answers {"status":1}.
records=$(curl -s -X POST "http://127.0.0.1:$server_port/v2/place" -H 'Content-Type: application/json' \
    -d "$(body_for 8047)" | python3 -c 'import json, sys; print(len(json.load(sys.stdin)["places"]))')
if [[ "$records" != 40 ]]; then
    echo "the component's query answers $records records, not 40: has examples/places changed?" >&2
    exit 1
fi
measure component 8047 8 /same-bytes /fixed
measure component 8047 64 /same-bytes
measure small 60 8 /fixed
