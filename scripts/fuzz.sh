#!/usr/bin/env bash
# Runs every libFuzzer target of build/fuzz for a bounded time on a copy of its seed corpus.
set -euo pipefail
cd "$(dirname "$0")/.."

if [[ "${1:-}" == "--help" || "${1:-}" == "-h" ]]; then
    echo "Usage: scripts/fuzz.sh [SECONDS]   (default 20 per target; build with: cmake --preset fuzz && cmake --build --preset fuzz)"
    exit 0
fi
seconds="${1:-20}"
status=0
for target in build/fuzz/fuzz/fuzz_*; do
    [[ -x "$target" ]] || continue
    name=$(basename "$target")
    seeds="fuzz/corpus/${name#fuzz_}"
    work=$(mktemp -d)
    [[ -d "$seeds" ]] && cp -r "$seeds/." "$work/"
    echo "fuzz: $name for ${seconds}s"
    if ! "$target" -max_total_time="$seconds" -max_len="${FUZZ_MAX_LEN:-65536}" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 "$work" \
        >"$work.log" 2>&1; then
        tail -60 "$work.log"
        status=1
    else
        grep -E "stat::number_of_executed_units|Done" "$work.log" | tail -2
    fi
    rm -rf "$work" "$work.log"
done
exit $status
