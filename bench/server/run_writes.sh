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
Prints, per endpoint and server, the median requests per second, the median p99 latency, the commits
PostgreSQL counted per second, and the median of the per-pair ratios (group commit / alone).
--smoke: one pair of one second at 8 connections, so that CI sees the script still runs.
Environment: BUILD_DIR, RUNS, DURATION, CONNECTIONS, SERVER_THREADS (default 2), WORK_DIR.
USAGE
}
[[ "${1:-}" == "--help" || "${1:-}" == "-h" ]] && { usage; exit 0; }
[[ "${1:-}" == "--smoke" ]] && RUNS=1 DURATION=1s CONNECTIONS=8

BUILD_DIR=${BUILD_DIR:-build/server}
RUNS=${RUNS:-5}
DURATION=${DURATION:-5s}
CONNECTIONS=${CONNECTIONS:-64}
install_packages wrk postgresql postgresql-15-postgis-3
build_targets "$BUILD_DIR" tovrel-server
server="$BUILD_DIR/server/tovrel-server"

tmp=$(mktemp -d "${WORK_DIR:-${TMPDIR:-/tmp}}/tovrel-writes.XXXXXX")
stop_on_exit "$tmp"
start_postgres "$tmp"
"$server" import examples/places/munich.geojson --db "$pg_db" >/dev/null
(umask 077 && printf 'bench-admin-token-0123456789' >"$tmp/token")

declare -A port key
for mode in on off; do
    port[$mode]=$(free_port)
    admin=$(free_port)
    "$server" serve --db "$pg_db" --listen "127.0.0.1:${port[$mode]}" --admin-listen "127.0.0.1:$admin" \
        --admin-token-file "$tmp/token" --access-log off --log-rate-limit 0 --group-commit "$mode" \
        --threads "${SERVER_THREADS:-2}" >"$tmp/$mode.log" 2>&1 &
    pids+=($!)
    until curl -sf "http://127.0.0.1:$admin/readyz" >/dev/null; do
        sleep 0.05
    done
    key[$mode]=$(curl -s -X POST "http://127.0.0.1:${port[$mode]}/v1/session" -H 'Content-Type: application/json' \
        -d "{\"deviceId\":\"BENCH-$mode\",\"sdkkey\":\"demo-key\"}" |
        python3 -c 'import json, sys; print(json.load(sys.stdin)["sessionKey"])')
done

body_for() { # MODE ENDPOINT
    case $2 in
        /v1/devicetag/update) echo "{\"sessionKey\":\"${key[$1]}\",\"tag\":\"TAG\",\"tagValue\":\"1\"}" ;;
        /v1/log) echo "{\"deviceid\":\"BENCH-$1\",\"message\":{\"bench\":{\"n\":1}}}" ;;
    esac
}

commits() {
    psql -qtA -h 127.0.0.1 -p "$pg_port" -U postgres -d bench \
        -c "SELECT xact_commit FROM pg_stat_database WHERE datname = 'bench'"
}

# run MODE ENDPOINT: prints "requests/s p99-ms commits/s" of one wrk run
run() {
    cat >"$tmp/post.lua" <<LUA
wrk.method = "POST"
wrk.headers["Content-Type"] = "application/json"
local body, n = '$(body_for "$1" "$2")', 0
request = function()
    n = n + 1
    return wrk.format(nil, nil, nil, (body:gsub("TAG", "t" .. n)))
end
LUA
    local before after out seconds
    before=$(commits)
    out=$(wrk -t2 -c"$CONNECTIONS" -d"$DURATION" --latency -s "$tmp/post.lua" "http://127.0.0.1:${port[$1]}$2")
    after=$(commits)
    if grep -q "Non-2xx" <<<"$out"; then
        echo "wrk saw errors from $1 $2:" >&2
        echo "$out" >&2
        exit 1
    fi
    seconds=${DURATION%s}
    awk -v c=$((after - before)) -v s="$seconds" '
        /Requests\/sec/ {rate = $2}
        /^ +99%/ {p = $2; ms = p + 0; if (p ~ /us$/) ms /= 1000; else if (p ~ /[^m]s$/) ms *= 1000}
        END {printf "%s %.2f %.0f\n", rate, ms, c / s}' <<<"$out"
}

printf '%-22s %-14s %10s %9s %10s\n' endpoint "group commit" "req/s" "p99 ms" "commits/s"
for endpoint in /v1/devicetag/update /v1/log; do
    declare -A rate=() p99=() per=()
    ratios=()
    for _ in $(seq "$RUNS"); do
        for mode in on off; do
            read -r r p c < <(run "$mode" "$endpoint")
            rate[$mode]+="$r " p99[$mode]+="$p " per[$mode]+="$c "
            [[ $mode == on ]] && on_rate=$r
        done
        ratios+=("$(awk -v a="$on_rate" -v b="$r" 'BEGIN {printf "%.2f", a / b}')")
    done
    for mode in on off; do
        # shellcheck disable=SC2086
        printf '%-22s %-14s %10.0f %9s %10.0f\n' "$endpoint" "$mode" "$(median ${rate[$mode]})" \
            "$(median ${p99[$mode]})" "$(median ${per[$mode]})"
    done
    printf '%-22s group commit / alone: %s (pairs: %s)\n' "$endpoint" "$(median "${ratios[@]}")" "${ratios[*]}"
done
