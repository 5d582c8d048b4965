#!/usr/bin/env bash
# Clang's thread-safety analysis over the locked state that is annotated: every member marked
# TOVREL_GUARDED_BY is touched with its mutex held and every TOVREL_REQUIRES function is called so
# (include/tovrel/platform/thread_annotations.h). Covers tovrel-server, the linux backend's location
# services, the virtual scheduler, the simulator's request watch and the component's offer desk,
# targets and checks' records.
# Syntax only, so it costs no build; fails on the first warning.
set -euo pipefail
cd "$(dirname "$0")/.."

if [[ "${1:-}" == "--help" || "${1:-}" == "-h" ]]; then
    echo "Usage: scripts/check-thread-safety.sh   (needs clang++)"
    exit 0
fi
command -v clang++ >/dev/null || { echo "check-thread-safety: clang++ is not installed" >&2; exit 1; }

analyse() {
    xargs -0 -n 1 -P "$(nproc)" clang++ -std=c++20 -fsyntax-only -Wthread-safety -Wthread-safety-beta -Werror "$@"
}

find server/src -name '*.cpp' -print0 | sort -z |
    analyse -DBOOST_BEAST_USE_STD_STRING_VIEW -Iserver/src -Iserver/include -Iinclude -I"$(pg_config --includedir)"

# Backend files whose locks carry annotations (add a file here when its locks gain them).
backend_files=(
    platform/linux/src/linux_location_services.cpp
    platform/virtual/src/virtual_scheduler.cpp
    tools/sim/request_watch.cpp
)
printf '%s\0' "${backend_files[@]}" |
    analyse -Iinclude -Iplatform/linux/include -Iplatform/virtual/include -Iplatform/paths/include
# Component files whose locks carry annotations.
component_files=(
    src/delivery/offer_desk.cpp
    src/targeting/check_log.cpp
    src/targeting/shared_targets.cpp
)
printf '%s\0' "${component_files[@]}" | analyse -Iinclude -Isrc
echo "check-thread-safety: tovrel-server's, the location services', the virtual scheduler's, the request watch's and the component's locks are held where they must be"
