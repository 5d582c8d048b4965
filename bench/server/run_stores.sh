#!/usr/bin/env bash
# One replica of tovrel-server on PostgreSQL beside the same on SQLite, in one run: import of a
# generated place file, start until ready, POST /v2/place requests/s (answered from the in-memory
# index on both), sustained writes/s, and the time a place added through one PostgreSQL replica's
# admin API takes to be answered by another. CI runs it in its smoke mode only.
set -euo pipefail
cd "$(dirname "$0")/../.."
source bench/server/common.sh

usage() {
    cat <<'USAGE'
Usage: bench/server/run_stores.sh [--smoke] [--help]

Installs wrk if missing, builds tovrel-server in $BUILD_DIR (default build/server), writes PLACES
generated places (default 1,000,000; bench/server/make_places.py), starts a PostgreSQL cluster of
its own in a temporary folder (initdb; as "nobody" when run as root; durable settings: fsync and
synchronous commit on) and then, for SQLite and for PostgreSQL:
  import    wall time of `tovrel-server import` of the file
  start     from `serve` to /readyz answering 200 (the catalogue read and indexed)
  places    POST /v2/place as the component asks (distanceThreshold 8047 m) from a point among the
            places, wrk 2 threads, 8 connections, RUNS pairs (default 5) of DURATION (default 5s),
            alternating the stores; medians and the median of the per-pair ratios
  tags      POST /v1/devicetag/update (one upsert each), the same way: writes per second
  logs      POST /v1/log (one insert each; no per-device limit), the same way
Then a second PostgreSQL replica is started and a place added through the first one's admin API;
the time until the second answers it is printed (RUNS times).
--smoke: 1,000 places, one pair of one second each, one place added.
Environment: BUILD_DIR, PLACES, RUNS, DURATION, SERVER_THREADS (default 2), WORK_DIR.
USAGE
}
[[ "${1:-}" == "--help" || "${1:-}" == "-h" ]] && { usage; exit 0; }
[[ "${1:-}" == "--smoke" ]] && PLACES=1000 RUNS=1 DURATION=1s

BUILD_DIR=${BUILD_DIR:-build/server}
PLACES=${PLACES:-1000000}
RUNS=${RUNS:-5}
DURATION=${DURATION:-5s}
install_packages wrk postgresql postgresql-15-postgis-3
build_targets "$BUILD_DIR" tovrel-server
server="$BUILD_DIR/server/tovrel-server"

tmp=$(mktemp -d "${WORK_DIR:-${TMPDIR:-/tmp}}/tovrel-stores.XXXXXX")
stop_on_exit "$tmp"

echo "writing $PLACES places"
python3 bench/server/make_places.py "$PLACES" "$tmp/places.geojson"

start_postgres "$tmp"
sqlite_db="$tmp/bench.db"

seconds_since() { # START_NS
    awk -v a="$1" -v b="$(date +%s%N)" 'BEGIN {printf "%.2f", (b - a) / 1e9}'
}

declare -A port admin
started_in=""
start_server() { # NAME DB: starts a server, waits until it is ready and sets started_in (seconds)
    local t0
    port[$1]=$(free_port)
    admin[$1]=$(free_port)
    t0=$(date +%s%N)
    "$server" serve --db "$2" --listen "127.0.0.1:${port[$1]}" --admin-listen "127.0.0.1:${admin[$1]}" \
        --admin-token-file "$tmp/token" --access-log off --log-rate-limit 0 --threads "${SERVER_THREADS:-2}" \
        >"$tmp/$1.log" 2>&1 &
    pids+=($!)
    until curl -sf "http://127.0.0.1:${admin[$1]}/readyz" >/dev/null; do
        sleep 0.05
    done
    started_in=$(seconds_since "$t0")
}
(umask 077 && printf 'bench-admin-token-0123456789' >"$tmp/token")

declare -A import_s start_s
for store in sqlite postgresql; do
    db=$sqlite_db
    [[ $store == postgresql ]] && db=$pg_db
    t0=$(date +%s%N)
    "$server" import "$tmp/places.geojson" --db "$db" >/dev/null
    import_s[$store]=$(seconds_since "$t0")
    start_server "$store" "$db"
    start_s[$store]=$started_in
done
printf 'import of %d places:  SQLite %6s s   PostgreSQL %6s s\n' "$PLACES" "${import_s[sqlite]}" \
    "${import_s[postgresql]}"
printf 'start until ready:     SQLite %6s s   PostgreSQL %6s s\n' "${start_s[sqlite]}" "${start_s[postgresql]}"

declare -A key
for store in sqlite postgresql; do
    key[$store]=$(curl -s -X POST "http://127.0.0.1:${port[$store]}/v1/session" -H 'Content-Type: application/json' \
        -d '{"deviceId":"BENCH-DEVICE","deviceType":"bench","deviceModel":"bench","sdkkey":"bench-key"}' |
        python3 -c 'import json, sys; print(json.load(sys.stdin)["sessionKey"])')
done
# A point with places around it: the first generated place.
read -r lat lon < <(python3 -c '
import json, sys
with open(sys.argv[1]) as f:
    for line in f:
        if line.lstrip(",").startswith("{\"type\":\"Feature\""):
            c = json.loads(line.lstrip(",").rstrip(",\n"))["geometry"]["coordinates"]
            print(c[1], c[0])
            break' "$tmp/places.geojson")

body_for() { # STORE ENDPOINT
    case $2 in
        /v2/place) echo "{\"sessionKey\":\"${key[$1]}\",\"coordinatesList\":[{\"lat\":\"$lat\",\"lon\":\"$lon\"}],\"distanceThreshold\":\"8047\"}" ;;
        /v1/devicetag/update) echo "{\"sessionKey\":\"${key[$1]}\",\"tag\":\"TAG\",\"tagValue\":\"1\"}" ;;
        /v1/log) echo "{\"deviceid\":\"BENCH-DEVICE\",\"message\":{\"bench\":{\"n\":1}}}" ;;
    esac
}

wrk_rate() { # URL BODY: requests/s of BODY posted, with TAG replaced by a new name each time (so that
    # the tag writes of one device do not all wait for one row's lock)
    write_post_script "$tmp/post.lua" "$2"
    local out
    out=$(wrk -t2 -c8 -d"$DURATION" -s "$tmp/post.lua" "$1")
    if grep -q "Non-2xx" <<<"$out"; then
        echo "wrk saw errors from $1:" >&2
        echo "$out" >&2
        exit 1
    fi
    awk '/Requests\/sec/ {print $2}' <<<"$out"
}

records=$(curl -s -X POST "http://127.0.0.1:${port[sqlite]}/v2/place" -H 'Content-Type: application/json' \
    -d "$(body_for sqlite /v2/place)" | python3 -c 'import json, sys; print(len(json.load(sys.stdin)["places"]))')
echo "/v2/place answers $records records at ($lat, $lon)"
for endpoint in /v2/place /v1/devicetag/update /v1/log; do
    lite=() pg=() ratios=()
    for _ in $(seq "$RUNS"); do
        a=$(wrk_rate "http://127.0.0.1:${port[sqlite]}$endpoint" "$(body_for sqlite "$endpoint")")
        b=$(wrk_rate "http://127.0.0.1:${port[postgresql]}$endpoint" "$(body_for postgresql "$endpoint")")
        lite+=("$a")
        pg+=("$b")
        ratios+=("$(awk -v a="$a" -v b="$b" 'BEGIN {printf "%.2f", b / a}')")
    done
    printf '%-22s SQLite %8.0f req/s   PostgreSQL %8.0f req/s   PostgreSQL/SQLite %s (pairs: %s)\n' \
        "$endpoint" "$(median "${lite[@]}")" "$(median "${pg[@]}")" "$(median "${ratios[@]}")" "${ratios[*]}"
done

start_server replica "$pg_db"
replica_key=$(curl -s -X POST "http://127.0.0.1:${port[replica]}/v1/session" -H 'Content-Type: application/json' \
    -d '{"deviceId":"WATCHER","sdkkey":"bench-key"}' | python3 -c 'import json, sys; print(json.load(sys.stdin)["sessionKey"])')
delays=()
for run in $(seq "$RUNS"); do
    id=$((900000000 + run))
    feature="{\"type\":\"Feature\",\"geometry\":{\"type\":\"Point\",\"coordinates\":[$lon,$lat]},\"properties\":{\"placeId\":$id,\"radius\":30,\"offers\":[{\"eventId\":$id,\"campaign\":\"Campaign 0\",\"eventName\":\"New\",\"alertText\":\"New\",\"eventTypeId\":3}]}}"
    t0=$(date +%s%N)
    curl -sf -X POST "http://127.0.0.1:${admin[postgresql]}/admin/v1/places" \
        -H "Authorization: Bearer $(cat "$tmp/token")" -d "$feature" >/dev/null
    for _ in $(seq 600); do
        curl -s -X POST "http://127.0.0.1:${port[replica]}/v2/place" -H 'Content-Type: application/json' \
            -d "{\"sessionKey\":\"$replica_key\",\"coordinatesList\":[{\"lat\":\"$lat\",\"lon\":\"$lon\"}],\"distanceThreshold\":\"100\"}" |
            grep -q "\"placeId\":\"$id\"" && break
        sleep 0.01
    done
    delays+=("$(seconds_since "$t0")")
done
printf 'a place added through one PostgreSQL replica, answered by another after: median %s s (runs: %s)\n' \
    "$(median "${delays[@]}")" "${delays[*]}"
