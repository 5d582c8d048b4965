#!/usr/bin/env bash
# Fails when a tracked C or C++ file differs from what the committed .clang-format makes of it.
#   scripts/check-format.sh          check, listing the files that differ
#   scripts/check-format.sh --fix    reformat them in place
set -euo pipefail
cd "$(dirname "$0")/.."

case "${1:-}" in
    --help|-h) sed -n '2,4p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    --fix) git ls-files -z '*.c' '*.cpp' '*.h' | xargs -0 clang-format -i; exit 0 ;;
    "") ;;
    *) echo "check-format: unknown option '$1'" >&2; exit 2 ;;
esac

differ=()
while IFS= read -r -d '' file; do
    clang-format --dry-run --Werror "$file" >/dev/null 2>&1 || differ+=("$file")
done < <(git ls-files -z '*.c' '*.cpp' '*.h')
if ((${#differ[@]} > 0)); then
    printf 'check-format: %d files differ from .clang-format (scripts/check-format.sh --fix):\n' "${#differ[@]}" >&2
    printf '  %s\n' "${differ[@]}" >&2
    exit 1
fi
echo "check-format: every file is formatted"
