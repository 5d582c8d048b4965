#!/usr/bin/env bash
# Clang's thread-safety analysis over tovrel-server: every member marked TOVREL_GUARDED_BY is touched
# with its mutex held and every TOVREL_REQUIRES function is called so (server/src/thread_annotations.h).
# Syntax only, so it costs no build; fails on the first warning.
set -euo pipefail
cd "$(dirname "$0")/.."

if [[ "${1:-}" == "--help" || "${1:-}" == "-h" ]]; then
    echo "Usage: scripts/check-thread-safety.sh   (needs clang++)"
    exit 0
fi
command -v clang++ >/dev/null || { echo "check-thread-safety: clang++ is not installed" >&2; exit 1; }

find server/src -name '*.cpp' -print0 | sort -z |
    xargs -0 -n 1 -P "$(nproc)" clang++ -std=c++20 -fsyntax-only -Wthread-safety -Wthread-safety-beta -Werror \
        -DBOOST_BEAST_USE_STD_STRING_VIEW -Iserver/src -Iserver/include -Iinclude -I"$(pg_config --includedir)"
echo "check-thread-safety: tovrel-server's locks are held where they must be"
