#!/usr/bin/env bash
# Writes per second on PostgreSQL with group commit and without it, in one run: the same server program
# against the same database, alternating, each with 64 clients. CI runs it in its smoke mode only.
set -euo pipefail
cd "$(dirname "$0")/../.."
source bench/server/common.sh

usage() {
    cat <<'USAGE'
Usage: bench/server/run_writes.sh [--smoke] [--help]

Builds tovrel-server in $BUILD_DIR (default build/server), starts a PostgreSQL cluster of its own in a
temporary folder (initdb; as "nobody" when run as root; fsync and synchronous commit on), imports the
example city and starts two servers on that database: one with --group-commit on, one with it off.
Then for each endpoint, RUNS pairs (default 5) of DURATION (default 5s) with wrk (2 threads,
CONNECTIONS connections, default 64), alternating the two servers:
  /v1/devicetag/update   one upsert and its webhook row each, a new tag name every request
  /v1/log                one insert into the day's partition each
  /v1/session            a device's first session each (its row, the session, its webhook rows)
  /v1/deviceevent/update a status of one live link each (checked to be the device's, then inserted)
  /v1/deviceevent/link   a new link each (DEVICES fresh sessions a run, default 600, times the
                         example city's 45 offers at places): the device's row locked, its caps
                         counted, the link and its webhook row inserted
Prints, per endpoint and server, the median requests per second, the median p99 latency, the times a
second PostgreSQL waited for its log to reach the disk (pg_stat_wal's wal_sync: one per commit of
writes, fewer when commits share a flush), the CPU time per request of the server and of PostgreSQL
(user + system, from /proc), and the median of the per-pair ratios (group commit / alone).
--smoke: one pair of one second at 8 connections, so that CI sees the script still runs.
Environment: BUILD_DIR, RUNS, DURATION, CONNECTIONS, DEVICES, SERVER_THREADS (default 2), WORK_DIR,
ENDPOINTS (space-separated; default tags, log messages and links), LOG_DB=apart (the first server
keeps log messages in a database of their own), BASELINE_SERVER (a tovrel-server built elsewhere: the second server is it,
with group commit BASELINE_COMMIT, default on, so that the ratio compares two builds; off compares
this build with another's writes committed one at a time).
USAGE
}
[[ "${1:-}" == "--help" || "${1:-}" == "-h" ]] && { usage; exit 0; }
[[ "${1:-}" == "--smoke" ]] && RUNS=1 DURATION=1s CONNECTIONS=8 DEVICES=50

BUILD_DIR=${BUILD_DIR:-build/server}
RUNS=${RUNS:-5}
DURATION=${DURATION:-5s}
CONNECTIONS=${CONNECTIONS:-64}
DEVICES=${DEVICES:-600}
install_packages wrk postgresql postgresql-15-postgis-3
build_targets "$BUILD_DIR" tovrel-server
server="$BUILD_DIR/server/tovrel-server"

tmp=$(mktemp -d "${WORK_DIR:-${TMPDIR:-/tmp}}/tovrel-writes.XXXXXX")
stop_on_exit "$tmp"
start_postgres "$tmp"
"$server" import examples/places/munich.geojson --db "$pg_db" >/dev/null
(umask 077 && printf 'bench-admin-token-0123456789' >"$tmp/token")

declare -A port key server_pid label=([on]=on [off]=off)
[[ -n ${BASELINE_SERVER:-} ]] && label[off]="${BASELINE_COMMIT:-on}, baseline"
[[ ${LOG_DB:-} == apart ]] && label[on]="on, logs apart"
logs_apart=()
if [[ ${LOG_DB:-} == apart ]]; then
    psql -q -h 127.0.0.1 -p "$pg_port" -U postgres -d bench -c "CREATE DATABASE bench_logs"
    logs_apart=(--log-db "${pg_db%/*}/bench_logs")
fi
for mode in on off; do
    port[$mode]=$(free_port)
    admin=$(free_port)
    program=$server commit=$mode extra=()
    if [[ $mode == on ]]; then
        extra=("${logs_apart[@]}")
    elif [[ -n ${BASELINE_SERVER:-} ]]; then
        program=$BASELINE_SERVER commit=${BASELINE_COMMIT:-on}
    fi
    "$program" serve --db "$pg_db" --listen "127.0.0.1:${port[$mode]}" --admin-listen "127.0.0.1:$admin" \
        --admin-token-file "$tmp/token" --access-log off --log-rate-limit 0 --group-commit "$commit" \
        --threads "${SERVER_THREADS:-2}" "${extra[@]}" >"$tmp/$mode.log" 2>&1 &
    server_pid[$mode]=$!
    pids+=($!)
    until curl -sf "http://127.0.0.1:$admin/readyz" >/dev/null; do
        sleep 0.05
    done
    key[$mode]=$(curl -s -X POST "http://127.0.0.1:${port[$mode]}/v1/session" -H 'Content-Type: application/json' \
        -d "{\"deviceId\":\"BENCH-$mode\",\"sdkkey\":\"demo-key\"}" |
        python3 -c 'import json, sys; print(json.load(sys.stdin)["sessionKey"])')
done

# Every offer at its place in the example city, as Lua: {"placeId", "eventId"}, ...
pairs=$(python3 -c '
import json, sys
city = json.load(open(sys.argv[1]))
print(",".join("{%d,%d}" % (f["properties"]["placeId"], o["eventId"])
               for f in city["features"] for o in f["properties"].get("offers", [])))' examples/places/munich.geojson)
run_number=0

# A live link of each server's device, for the statuses /v1/deviceevent/update adds to it.
declare -A event
first_pair=${pairs%%\}*}
first_pair=${first_pair#\{}
for mode in on off; do
    event[$mode]=$(curl -s -X POST "http://127.0.0.1:${port[$mode]}/v1/deviceevent/link" \
        -H 'Content-Type: application/json' \
        -d "{\"sessionKey\":\"${key[$mode]}\",\"placeId\":${first_pair%,*},\"eventId\":${first_pair#*,}}" |
        python3 -c 'import json, sys; print(json.load(sys.stdin)["places"][0]["deviceEventId"])')
done

# sessions MODE: DEVICES new session keys on MODE's server, as a Lua list
sessions() {
    python3 - "${port[$1]}" "$DEVICES" "$1-$run_number" <<'PY'
import http.client, json, sys
port, count, prefix = int(sys.argv[1]), int(sys.argv[2]), sys.argv[3]
conn = http.client.HTTPConnection("127.0.0.1", port)
keys = []
for i in range(count):
    body = json.dumps({"deviceId": f"BENCH-{prefix}-{i}", "sdkkey": "demo-key"})
    conn.request("POST", "/v1/session", body, {"Content-Type": "application/json"})
    keys.append(json.loads(conn.getresponse().read())["sessionKey"])
print(",".join('"%s"' % k for k in keys))
PY
}

body_for() { # MODE ENDPOINT
    case $2 in
        /v1/deviceevent/link) echo "LINK" ;;
        /v1/devicetag/update) echo "{\"sessionKey\":\"${key[$1]}\",\"tag\":\"TAG\",\"tagValue\":\"1\"}" ;;
        /v1/log) echo "{\"deviceid\":\"BENCH-$1\",\"message\":{\"bench\":{\"n\":1}}}" ;;
        /v1/deviceevent/update)
            echo "{\"sessionKey\":\"${key[$1]}\",\"deviceEventId\":${event[$1]},\"statusCode\":\"seen\"}" ;;
    esac
}

# The times PostgreSQL waited for its log to reach the disk: what a commit of a write costs, and what
# group commit shares.
syncs() {
    psql -qtA -h 127.0.0.1 -p "$pg_port" -U postgres -d bench -c "SELECT wal_sync FROM pg_stat_wal"
}

# counted_post_script FILE PRELUDE BODY: a wrk script whose thread t of T sends requests n = t, t + T,
# t + 2T, ... (wrk runs 2 threads), each with the text a function of n returns (BODY, Lua statements);
# PRELUDE declares what BODY uses.
counted_post_script() {
    cat >"$1" <<LUA
wrk.method = "POST"
wrk.headers["Content-Type"] = "application/json"
$2
local threads, made = 0, 0
setup = function(thread)
    thread:set("id", threads)
    threads = threads + 1
end
init = function(args)
    made = wrk.thread:get("id")
end
local body = function(n)
    $3
end
request = function()
    local text = body(made)
    made = made + 2
    return wrk.format(nil, nil, nil, text)
end
LUA
}

# run MODE ENDPOINT: prints "requests/s p99-ms syncs/s server-µs pg-µs" of one wrk run (the last two:
# CPU per request of the server and of PostgreSQL)
run() {
    run_number=$((run_number + 1))
    if [[ $2 == /v1/session ]]; then
        # Each request the first session of a device not seen before.
        counted_post_script "$tmp/post.lua" "" \
            "return string.format('{\"deviceId\":\"BENCH-$1-$run_number-%d\",\"sdkkey\":\"demo-key\"}', n)"
    elif [[ $2 == /v1/deviceevent/link ]]; then
        # Each request a link not made before.
        counted_post_script "$tmp/post.lua" "local keys = {$(sessions "$1")}
local pairs = {$pairs}" "local pair = pairs[math.floor(n / #keys) % #pairs + 1]
    return string.format('{\"sessionKey\":\"%s\",\"placeId\":%d,\"eventId\":%d}', keys[n % #keys + 1], pair[1], pair[2])"
    else
        write_post_script "$tmp/post.lua" "$(body_for "$1" "$2")"
    fi
    local before after out seconds server0 server1 pg0 pg1
    before=$(syncs)
    server0=$(cpu_ticks "${server_pid[$1]}")
    pg0=$(cpu_ticks "$pg_pid")
    out=$(wrk -t2 -c"$CONNECTIONS" -d"$DURATION" --latency -s "$tmp/post.lua" "http://127.0.0.1:${port[$1]}$2")
    after=$(syncs)
    server1=$(cpu_ticks "${server_pid[$1]}")
    pg1=$(cpu_ticks "$pg_pid")
    if grep -q "Non-2xx" <<<"$out"; then
        echo "wrk saw errors from $1 $2:" >&2
        echo "$out" >&2
        exit 1
    fi
    seconds=${DURATION%s}
    awk -v c=$((after - before)) -v s="$seconds" -v st=$((server1 - server0)) -v pt=$((pg1 - pg0)) \
        -v hz="$clk_tck" '
        /Requests\/sec/ {rate = $2}
        /requests in/ {n = $1}
        /^ +99%/ {p = $2; ms = p + 0; if (p ~ /us$/) ms /= 1000; else if (p ~ /[^m]s$/) ms *= 1000}
        END {printf "%s %.2f %.0f %.1f %.1f\n", rate, ms, c / s, st / hz / n * 1e6, pt / hz / n * 1e6}' <<<"$out"
}

printf '%-22s %-13s %8s %7s %11s %13s %9s\n' endpoint "group commit" "req/s" "p99 ms" "WAL syncs/s" \
    "server µs/req" "PG µs/req"
for endpoint in ${ENDPOINTS:-/v1/devicetag/update /v1/log /v1/deviceevent/link}; do
    declare -A rate=() p99=() per=() scpu=() pcpu=()
    ratios=()
    for _ in $(seq "$RUNS"); do
        for mode in on off; do
            read -r r p c sc pc < <(run "$mode" "$endpoint")
            rate[$mode]+="$r " p99[$mode]+="$p " per[$mode]+="$c " scpu[$mode]+="$sc " pcpu[$mode]+="$pc "
            [[ $mode == on ]] && on_rate=$r
        done
        ratios+=("$(awk -v a="$on_rate" -v b="$r" 'BEGIN {printf "%.2f", a / b}')")
    done
    for mode in on off; do
        # shellcheck disable=SC2086
        printf '%-22s %-13s %8.0f %7s %11.0f %13s %9s\n' "$endpoint" "${label[$mode]}" "$(median ${rate[$mode]})" \
            "$(median ${p99[$mode]})" "$(median ${per[$mode]})" "$(median ${scpu[$mode]})" \
            "$(median ${pcpu[$mode]})"
    done
    printf '%-22s %s / %s: %s (pairs: %s)\n' "$endpoint" "${label[on]}" "${label[off]}" "$(median "${ratios[@]}")" \
        "${ratios[*]}"
done
