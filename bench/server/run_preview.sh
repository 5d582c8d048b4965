#!/usr/bin/env bash
# Wall time of POST /admin/v1/preview on the example city, beside the same fleet run by tovrel-sim
# directly, measured in the same run. CI runs it in its smoke mode only.
set -euo pipefail
cd "$(dirname "$0")/../.."
source bench/server/common.sh

usage() {
    cat <<'USAGE'
Usage: bench/server/run_preview.sh [--smoke] [--help]

Builds tovrel-server and tovrel-sim in $BUILD_DIR (default build/dev), imports the example city
(examples/places/munich.geojson, 38 places) into a fresh database, serves it, and takes a draft
without place 102. Then, RUNS times (default 3):
  POST /admin/v1/preview              the server exports its catalogue and runs tovrel-sim in a
                                      process of its own over DEVICES devices (default 1,000)
  baseline: tovrel-sim fleet          the same comparison from the same two files, started by hand
                                      (--compare --json --jobs 1)
Prints the medians, the ratio preview / baseline (what the server adds: the export, the files, the
process), and whether the preview stays within the target of 10 s. Both answers must be the same
bytes on every run.
--smoke: one run of 20 devices.
Environment: BUILD_DIR, DEVICES, RUNS.
USAGE
}
[[ "${1:-}" == "--help" || "${1:-}" == "-h" ]] && { usage; exit 0; }
[[ "${1:-}" == "--smoke" ]] && DEVICES=20 RUNS=1

BUILD_DIR=${BUILD_DIR:-build/dev}
DEVICES=${DEVICES:-1000}
RUNS=${RUNS:-3}
install_packages curl
build_with_simulator "$BUILD_DIR"
server="$BUILD_DIR/server/tovrel-server"
sim="$BUILD_DIR/tools/sim/tovrel-sim"

tmp=$(mktemp -d)
stop_on_exit "$tmp"
"$server" import examples/places/munich.geojson --db "$tmp/city.db" >/dev/null
head -c 48 /dev/urandom | base64 | tr -d '/+=' >"$tmp/token"
chmod 600 "$tmp/token"
port=$(free_port)
admin=$(free_port)
"$server" serve --db "$tmp/city.db" --listen "127.0.0.1:$port" --admin-listen "127.0.0.1:$admin" \
    --admin-token-file "$tmp/token" --preview-program "$sim" --preview-devices "$DEVICES" \
    --preview-cpu 600 --access-log off >"$tmp/server.log" 2>&1 &
pids+=($!)
wait_for_port "$admin"
auth="Authorization: Bearer $(cat "$tmp/token")"
curl -sf -H "$auth" "http://127.0.0.1:$admin/admin/v1/catalogue" >"$tmp/live.json"
python3 - "$tmp" <<'PY'
import json, sys
folder = sys.argv[1]
live = json.load(open(f"{folder}/live.json"))
draft = dict(live, features=[f for f in live["features"] if f["properties"]["placeId"] != 102])
json.dump(draft, open(f"{folder}/draft.json", "w"))
# What the server hands the simulator: both sides with the preview's own app.
for name, doc in (("draft", draft), ("live", live)):
    doc["properties"]["apps"] = [{"key": "tovrel-preview", "name": "Preview"}]
    json.dump(doc, open(f"{folder}/{name}-sim.json", "w"))
PY
start=$(date -u +%Y-%m-%dT%H:%M:%SZ)

ours=() base=() ratios=()
for run in $(seq "$RUNS"); do
    t0=$(date +%s.%N)
    curl -sf -H "$auth" -X POST --data-binary "@$tmp/draft.json" \
        "http://127.0.0.1:$admin/admin/v1/preview" >"$tmp/api$run.json"
    t1=$(date +%s.%N)
    "$sim" fleet --places "$tmp/draft-sim.json" --compare "$tmp/live-sim.json" --devices "$DEVICES" --seed 1 \
        --start "$start" --sdk-key tovrel-preview --jobs 1 --quiet --json >"$tmp/sim$run.json"
    t2=$(date +%s.%N)
    cmp -s "$tmp/api$run.json" "$tmp/api1.json" || { echo "the preview's answer changed between runs" >&2; exit 1; }
    o=$(awk -v a="$t0" -v b="$t1" 'BEGIN {printf "%.2f", b - a}')
    b=$(awk -v a="$t1" -v b="$t2" 'BEGIN {printf "%.2f", b - a}')
    printf 'run %d: preview %ss, tovrel-sim %ss\n' "$run" "$o" "$b"
    ours+=("$o") base+=("$b")
    ratios+=("$(awk -v a="$o" -v b="$b" 'BEGIN {printf "%.2f", a / b}')")
done
echo "medians of $RUNS runs, $DEVICES devices over the example city (both catalogues):"
printf '  %-32s %6.2f s\n' "POST /admin/v1/preview" "$(median "${ours[@]}")"
printf '  %-32s %6.2f s\n' "baseline: tovrel-sim fleet" "$(median "${base[@]}")"
printf '  ratio preview / baseline (median of the runs): %s (runs: %s)\n' "$(median "${ratios[@]}")" "${ratios[*]}"
awk -v s="$(median "${ours[@]}")" 'BEGIN {printf "  preview %s the target of 10 s\n", (s <= 10) ? "within" : "ABOVE"}'
