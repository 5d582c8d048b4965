#!/usr/bin/env bash
# Runs every libFuzzer target of build/fuzz for a bounded time on a copy of its seed corpus, as many at
# once as there are cores (each target is one process on one core).
set -euo pipefail
cd "$(dirname "$0")/.."

if [[ "${1:-}" == "--help" || "${1:-}" == "-h" ]]; then
    echo "Usage: scripts/fuzz.sh [SECONDS]   (default 20 per target; build with: cmake --preset fuzz && cmake --build --preset fuzz)"
    exit 0
fi
seconds="${1:-20}"
jobs="${FUZZ_JOBS:-$(nproc)}"

# Runs one target; prints its summary, or the end of its log when it found something.
run_target() {
    local target="$1" name seeds work
    name=$(basename "$target")
    seeds="fuzz/corpus/${name#fuzz_}"
    work=$(mktemp -d)
    [[ -d "$seeds" ]] && cp -r "$seeds/." "$work/"
    if ! "$target" -max_total_time="$seconds" -max_len="${FUZZ_MAX_LEN:-65536}" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 "$work" >"$work.log" 2>&1; then
        echo "fuzz: $name FAILED after at most ${seconds}s"
        tail -60 "$work.log"
        rm -rf "$work" "$work.log"
        return 1
    fi
    echo "fuzz: $name for ${seconds}s: $(grep -E "stat::number_of_executed_units" "$work.log" | tail -1)"
    rm -rf "$work" "$work.log"
}

status=0
pids=()
for target in build/fuzz/fuzz/fuzz_*; do
    [[ -x "$target" ]] || continue
    if ((${#pids[@]} >= jobs)); then
        wait "${pids[0]}" || status=1
        pids=("${pids[@]:1}")
    fi
    run_target "$target" &
    pids+=($!)
done
for pid in "${pids[@]}"; do
    wait "$pid" || status=1
done
exit $status
