#!/usr/bin/env bash
# Requests/s of POST /v2/place on tovrel-server against nginx answering a fixed 200 to the same
# POST, both on 127.0.0.1 and measured with wrk (2 threads, 8 connections). Starts both servers on
# free ports with their own files in a temporary folder and stops them afterwards. Not run by CI.
set -euo pipefail
cd "$(dirname "$0")/../.."
source bench/server/common.sh

usage() {
    cat <<'USAGE'
Usage: bench/server/run_endpoint_vs_nginx.sh [--help]

Installs nginx and wrk if missing, builds tovrel-server in $BUILD_DIR (default build/server), loads
examples/places/munich.geojson and measures two place queries from the old town centre:
  component  distanceThreshold "8047" (every old-town offer, as the component asks), against
             nginx returning {"status":1} and nginx returning the very same answer
  small      distanceThreshold "60" (one or two offers)
Each is run RUNS times (default 5) for DURATION (default 5s), alternating with nginx; the medians of
both and the median of the per-pair ratios are shown (pairs make a shared, busy machine less unfair).
Environment: BUILD_DIR, RUNS, DURATION, SERVER_THREADS (default 2).
USAGE
}
[[ "${1:-}" == "--help" || "${1:-}" == "-h" ]] && { usage; exit 0; }

BUILD_DIR=${BUILD_DIR:-build/server}
RUNS=${RUNS:-5}
DURATION=${DURATION:-5s}
install_packages nginx wrk
build_targets "$BUILD_DIR" tovrel-server

tmp=$(mktemp -d)
pids=()
cleanup() {
    for p in "${pids[@]}"; do
        kill "$p" 2>/dev/null || true
        wait "$p" 2>/dev/null || true
    done
    rm -rf "$tmp"
}
trap cleanup EXIT

server="$BUILD_DIR/server/tovrel-server"
"$server" import examples/places/munich.geojson --db "$tmp/bench.db" >/dev/null
server_port=$(free_port)
"$server" serve --db "$tmp/bench.db" --listen "127.0.0.1:$server_port" --content examples/content \
    --threads "${SERVER_THREADS:-2}" >"$tmp/server.log" 2>&1 &
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
pids+=($!)
wait_for_port "$nginx_port"

# wrk_rate URL BODY: requests/s of one wrk run posting BODY to URL.
wrk_rate() {
    cat >"$tmp/post.lua" <<LUA
wrk.method = "POST"
wrk.body = '$2'
wrk.headers["Content-Type"] = "application/json"
LUA
    local out
    out=$(wrk -t2 -c8 -d"$DURATION" -s "$tmp/post.lua" "$1")
    if grep -q "Non-2xx" <<<"$out"; then
        echo "wrk saw errors from $1:" >&2
        echo "$out" >&2
        exit 1
    fi
    awk '/Requests\/sec/ {print $2}' <<<"$out"
}

# measure NAME THRESHOLD NGINX_PATH...: RUNS pairs of wrk runs, the server then nginx.
measure() {
    local name=$1 threshold=$2
    shift 2
    local body records bytes
    body=$(body_for "$threshold")
    records=$(curl -s -X POST "http://127.0.0.1:$server_port/v2/place" -H 'Content-Type: application/json' \
        -d "$body" | python3 -c 'import json, sys; print(len(json.load(sys.stdin)["places"]))')
    bytes=$(curl -s -X POST "http://127.0.0.1:$server_port/v2/place" -H 'Content-Type: application/json' \
        -d "$body" | wc -c)
    printf '%s: distanceThreshold %s m, %d records, %d bytes\n' "$name" "$threshold" "$records" "$bytes"
    for path in "$@"; do
        local ours=() theirs=() ratios=() a b
        for _ in $(seq "$RUNS"); do
            a=$(wrk_rate "http://127.0.0.1:$server_port/v2/place" "$body")
            b=$(wrk_rate "http://127.0.0.1:$nginx_port$path" "$body")
            ours+=("$a")
            theirs+=("$b")
            ratios+=("$(awk -v a="$a" -v b="$b" 'BEGIN {printf "%.2f", a / b}')")
        done
        printf '  tovrel-server /v2/place     %8.0f req/s (runs: %s)\n' "$(median "${ours[@]}")" "${ours[*]}"
        printf '  nginx %-21s %8.0f req/s (runs: %s)\n' "$path" "$(median "${theirs[@]}")" "${theirs[*]}"
        printf '  ratio (median of the pairs) %8.2f       (pairs: %s)\n' "$(median "${ratios[@]}")" "${ratios[*]}"
    done
}

# /fixed answers {"status":1}; /same-bytes answers exactly what the server answers for 8047 m.
measure component 8047 /fixed /same-bytes
measure small 60 /fixed
