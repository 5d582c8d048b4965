#!/usr/bin/env bash
# The deployment of docs/deploy.md on one machine, under the load of simulated devices: PostgreSQL,
# REPLICAS tovrel-server replicas and HAProxy in front of them, and tovrel-sim's fleet of the real
# component talking HTTP to HAProxy. CI runs it in its smoke mode only.
set -euo pipefail
cd "$(dirname "$0")/../.."
source bench/server/common.sh

usage() {
    cat <<'USAGE'
Usage: bench/server/run_load.sh [--smoke] [--help]

Builds tovrel-server and tovrel-sim in $BUILD_DIR (default build/dev), starts a PostgreSQL cluster of
its own (initdb in a temporary folder; fsync and synchronous commit on), imports the example city,
starts REPLICAS replicas (default 3, group commit on) and HAProxy in front of them (round robin,
health checks on /readyz), then runs the load:
  tovrel-sim fleet --service http://HAPROXY --devices DEVICES --generate mixed --jobs JOBS
DEVICES (default 2000) devices of the real component, each along a made-up walk or drive of about 35
minutes among the places, in virtual time: the requests are the component's own mix (sessions, place
queries, links, statuses, log messages), as fast as the devices run (JOBS threads, default 2).
Prints, from the replicas' own metrics: requests per second per replica; per endpoint over all
replicas the requests, their p50 and p99 latency (the histogram's bucket bounds) and the answers
that were not 2xx; PostgreSQL's commits and WAL syncs per second; and whether every link the devices
saw acknowledged is in the database.
--smoke: 20 devices.
Environment: BUILD_DIR, REPLICAS, DEVICES, JOBS, SERVER_THREADS (default 2), WORK_DIR.
USAGE
}
[[ "${1:-}" == "--help" || "${1:-}" == "-h" ]] && { usage; exit 0; }
[[ "${1:-}" == "--smoke" ]] && DEVICES=20

BUILD_DIR=${BUILD_DIR:-build/dev}
REPLICAS=${REPLICAS:-3}
DEVICES=${DEVICES:-2000}
JOBS=${JOBS:-2}
install_packages haproxy postgresql postgresql-15-postgis-3 curl
build_with_simulator "$BUILD_DIR"
server="$BUILD_DIR/server/tovrel-server"
sim="$BUILD_DIR/tools/sim/tovrel-sim"

tmp=$(mktemp -d "${WORK_DIR:-${TMPDIR:-/tmp}}/tovrel-load.XXXXXX")
stop_on_exit "$tmp"
start_postgres "$tmp"
"$server" import examples/places/munich.geojson --db "$pg_db" >/dev/null
(umask 077 && printf 'bench-admin-token-0123456789' >"$tmp/token")

admin_ports=()
backends=""
for i in $(seq "$REPLICAS"); do
    port=$(free_port)
    admin=$(free_port)
    "$server" serve --db "$pg_db" --listen "127.0.0.1:$port" --admin-listen "127.0.0.1:$admin" \
        --admin-token-file "$tmp/token" --access-log off --threads "${SERVER_THREADS:-2}" \
        --content examples/content >"$tmp/replica$i.log" 2>&1 &
    pids+=($!)
    admin_ports+=("$admin")
    backends+="  server r$i 127.0.0.1:$port check port $admin"$'\n'
done
for admin in "${admin_ports[@]}"; do
    until curl -sf "http://127.0.0.1:$admin/readyz" >/dev/null; do
        sleep 0.05
    done
done
front=$(free_port)
cat >"$tmp/haproxy.cfg" <<CFG
global
  maxconn 4096
defaults
  mode http
  timeout connect 1s
  timeout client 30s
  timeout server 30s
  retries 3
  option redispatch
frontend api
  bind 127.0.0.1:$front
  default_backend replicas
backend replicas
  balance roundrobin
  option httpchk GET /readyz
  http-check expect status 200
  default-server inter 500ms fall 2 rise 2
$backends
CFG
haproxy -f "$tmp/haproxy.cfg" -db >"$tmp/haproxy.log" 2>&1 &
pids+=($!)
wait_for_port "$front"

stat() { # the database's counter NAME from pg_stat_database or pg_stat_wal
    psql -qtA -h 127.0.0.1 -p "$pg_port" -U postgres -d bench -c "$1"
}
commits0=$(stat "SELECT xact_commit FROM pg_stat_database WHERE datname = 'bench'")
syncs0=$(stat "SELECT wal_sync FROM pg_stat_wal")
t0=$(date +%s%N)
"$sim" fleet --service "http://127.0.0.1:$front" --devices "$DEVICES" --generate mixed --jobs "$JOBS" \
    --quiet --events "$tmp/fleet.jsonl" >"$tmp/fleet.out"
seconds=$(awk -v a="$t0" -v b="$(date +%s%N)" 'BEGIN {printf "%.2f", (b - a) / 1e9}')
commits1=$(stat "SELECT xact_commit FROM pg_stat_database WHERE datname = 'bench'")
syncs1=$(stat "SELECT wal_sync FROM pg_stat_wal")
for i in "${!admin_ports[@]}"; do
    curl -s "http://127.0.0.1:${admin_ports[$i]}/metrics" >"$tmp/metrics$i"
done
stored=$(stat "SELECT count(*) FROM (SELECT DISTINCT device, offer, place FROM device_events) l")

python3 - "$tmp" "$REPLICAS" "$seconds" "$((commits1 - commits0))" "$((syncs1 - syncs0))" "$stored" <<'PY'
import json, re, sys
from collections import defaultdict
tmp, replicas, seconds = sys.argv[1], int(sys.argv[2]), float(sys.argv[3])
commits, syncs, stored = int(sys.argv[4]), int(sys.argv[5]), int(sys.argv[6])
line = re.compile(r'^(\w+)\{([^}]*)\} ([0-9.e+-]+)$')
buckets = defaultdict(lambda: defaultdict(float))  # route -> bound -> count
answers = defaultdict(lambda: defaultdict(float))  # route -> status -> count
per_replica = []
for i in range(replicas):
    total = 0
    for text in open(f"{tmp}/metrics{i}"):
        m = line.match(text.strip())
        if not m:
            continue
        name, labels, value = m.group(1), dict(re.findall(r'(\w+)="([^"]*)"', m.group(2))), float(m.group(3))
        route = labels.get("route", "")
        if name == "tovrel_request_duration_seconds_bucket" and route.startswith("/v"):
            buckets[route][float(labels["le"])] += value
        elif name == "tovrel_requests_total" and route.startswith("/v"):
            answers[route][labels.get("code", "?")] += value
            total += value
    per_replica.append(total)
fleet = [json.loads(l) for l in open(f"{tmp}/fleet.jsonl")][-1]
acknowledged = sum(o["linked"] for o in fleet["offers"])

def quantile(route, q):
    counts = sorted(buckets[route].items())
    whole = counts[-1][1] if counts else 0
    for bound, count in counts:
        if count >= q * whole:
            return "≤ %g ms" % (bound * 1000) if bound != float("inf") else "> 5 s"
    return "-"

print(f"{fleet['devices']} devices, {fleet['deviceHours']} device-hours of the component in {seconds:.1f} s "
      f"through HAProxy to {replicas} replicas")
print("requests per second per replica: " + ", ".join("%.0f" % (t / seconds) for t in per_replica)
      + " (all: %.0f)" % (sum(per_replica) / seconds))
print("%-24s %9s %9s %9s %10s" % ("endpoint", "requests", "p50", "p99", "not 2xx"))
for route in sorted(answers):
    done = sum(answers[route].values())
    failed = sum(v for s, v in answers[route].items() if not s.startswith("2"))
    print("%-24s %9d %9s %9s %10d" % (route, done, quantile(route, 0.5), quantile(route, 0.99), failed))
print("PostgreSQL: %.0f commits/s (reads included), %.0f WAL syncs/s" % (commits / seconds, syncs / seconds))
verdict = "every one is in the database" if stored == acknowledged else "MISSING or extra rows"
print(f"links acknowledged to devices: {acknowledged}; (device, offer, place) links stored: {stored}: {verdict}")
sys.exit(0 if stored == acknowledged and fleet["sessionsNeverStarted"] == 0 else 1)
PY
