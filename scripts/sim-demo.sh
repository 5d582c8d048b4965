#!/usr/bin/env bash
# The main job on a fresh machine: installs what is missing, builds tovrel-sim and runs it on the
# example city walk against its embedded service, writing a timeline, an events file and an HTML report.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    cat <<'USAGE'
Usage: scripts/sim-demo.sh [tovrel-sim run options...]

Builds tovrel-sim (optimised preset) and runs
  tovrel-sim run --route examples/routes/city-walk.csv --events out/city-walk.jsonl --report out/city-walk.html
Extra options are passed on (for example --app-state active --answer later); see
  build/dev/tools/sim/tovrel-sim run --help
USAGE
}
[[ "${1:-}" == "--help" || "${1:-}" == "-h" ]] && { usage; exit 0; }

scripts/setup.sh
cmake --preset dev >/dev/null
cmake --build --preset dev -j "$(nproc)" --target tovrel-sim
mkdir -p out
build/dev/tools/sim/tovrel-sim run --route examples/routes/city-walk.csv \
    --events out/city-walk.jsonl --report out/city-walk.html "$@"
