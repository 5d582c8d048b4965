#!/usr/bin/env bash
# The server's place index against Redis GEOSEARCH: 1,000,000 places over ~1000 x 1000 km, queries
# for the places within 8047 m, one client each. Starts a private redis-server on a free 127.0.0.1
# port and stops it afterwards. CI runs it in its smoke mode only.
set -euo pipefail
cd "$(dirname "$0")/../.."
source bench/server/common.sh

usage() {
    cat <<'USAGE'
Usage: bench/server/run_index_vs_redis.sh [--smoke] [--help]

Installs redis-server and libhiredis-dev if missing, builds tovrel_server_geo_bench in $BUILD_DIR
(default build/server), and prints queries/s of both engines and their ratio.
--smoke: 1,000 places, half a second each.
Environment: BUILD_DIR, PLACES (default 1000000), SECONDS_EACH (default 5).
USAGE
}
[[ "${1:-}" == "--help" || "${1:-}" == "-h" ]] && { usage; exit 0; }
[[ "${1:-}" == "--smoke" ]] && PLACES=1000 SECONDS_EACH=0.5

BUILD_DIR=${BUILD_DIR:-build/server}
install_packages redis-server libhiredis-dev
build_targets "$BUILD_DIR" tovrel_server_geo_bench

tmp=$(mktemp -d)
port=$(free_port)
redis-server --bind 127.0.0.1 --port "$port" --save '' --appendonly no --dir "$tmp" \
    --protected-mode yes --daemonize no >"$tmp/redis.log" 2>&1 &
redis_pid=$!
trap 'kill "$redis_pid" 2>/dev/null; wait "$redis_pid" 2>/dev/null; rm -rf "$tmp"' EXIT
wait_for_port "$port"
echo "redis-server $(redis-server --version | grep -o 'v=[^ ]*') on 127.0.0.1:$port"

"$BUILD_DIR/bench/server/tovrel_server_geo_bench" --places "${PLACES:-1000000}" --seconds "${SECONDS_EACH:-5}" \
    --radius 8047 --redis-port "$port"
