#!/usr/bin/env bash
# clang-tidy with the committed .clang-tidy over the component: every source file in src/, and the
# public headers in include/tovrel/ they include. Reads build/<preset>/compile_commands.json (the
# dev preset by default; configured first when it is missing). Fails on any warning and prints how
# long it took.
#   scripts/check-tidy.sh [--preset NAME] [-j N]     (default: dev, 2 jobs)
set -euo pipefail
cd "$(dirname "$0")/.."

preset=dev
jobs=2
while (($# > 0)); do
    case "$1" in
        --help|-h) sed -n '2,6p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        --preset) preset="$2"; shift 2 ;;
        -j) jobs="$2"; shift 2 ;;
        *) echo "check-tidy: unknown option '$1'" >&2; exit 2 ;;
    esac
done
command -v run-clang-tidy >/dev/null || { echo "check-tidy: run-clang-tidy is not installed" >&2; exit 1; }

build="build/$preset"
if [[ ! -f "$build/compile_commands.json" ]]; then
    cmake --preset "$preset" >/dev/null
fi

start=$SECONDS
log="$(mktemp)"
trap 'rm -f "$log"' EXIT
status=0
# The component's translation units only: backends, tests and tools have their own rules.
run-clang-tidy -quiet -p "$build" -j "$jobs" "^$PWD/src/" >"$log" 2>&1 || status=$?
# run-clang-tidy echoes each command line; keep only what clang-tidy said.
grep -v -e '^clang-tidy' -e '^[0-9]* warnings\? generated' -e '^Suppressed [0-9]* warnings' \
    -e '^Use -header-filter' -e '^Running clang-tidy' -e '^$' "$log" || true
elapsed=$((SECONDS - start))
files=$(grep -c "\"file\": \"$PWD/src/" "$build/compile_commands.json" || true)
if ((status != 0)); then
    echo "check-tidy: warnings in the component (${files} files, ${elapsed} s)" >&2
    exit 1
fi
echo "check-tidy: the component is clean (${files} files, ${jobs} jobs, ${elapsed} s)"
