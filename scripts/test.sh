#!/usr/bin/env bash
# Builds Tovrel and runs every test suite: the fuzz targets for a bounded time, the
# AddressSanitizer+UBSan build, the ThreadSanitizer build of the real-thread suites, the optimised build, then
# the shared libraries as they ship, from the optimised build's objects.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    cat <<'USAGE'
Usage: scripts/test.sh [--quick] [--help]

Installs what is missing (scripts/setup.sh), checks the format (scripts/check-format.sh), the
direction of every #include (scripts/check-layering.py), the component with clang-tidy
(scripts/check-tidy.sh) and the locks of tovrel-server and the backends with clang's thread-safety
analysis (scripts/check-thread-safety.sh), then builds and tests:
  1. libFuzzer targets (clang, address+undefined), each run for FUZZ_SECONDS (default 20)
  2. the address+undefined sanitizer build and its CTest suite (without the report's scripts in
     Chromium, label browser)
  3. the thread-sanitizer build of the suites that run on real threads (location monitor,
     libcurl client, linux backend, a whole session on the linux backend, the C interface, the
     server's HTTP front and its connection limits)
  4. the optimised build and its CTest suite (in a full run without the server's HTTP suite and the
     cluster test, which steps 2 and 3 ran), every benchmark script and program among it at tiny
     sizes (label bench) so that none rots
  5. the shared libraries as they ship (preset release, compiled from the optimised build's objects
     through ccache): installed into a temporary prefix, the embedding examples and the Python
     package built and run against it and an installed tovrel-server, the Debian packages installed
     into a fresh root (scripts/check-install.sh)
--quick   only step 4
USAGE
}
quick=0
for a in "$@"; do
    case "$a" in
        --help|-h) usage; exit 0 ;;
        --quick) quick=1 ;;
        *) echo "test.sh: unknown option '$a'" >&2; usage >&2; exit 2 ;;
    esac
done

# Each stage says how long the one before it took, and the run ends with the list: CI has an hour.
stage_name="setup"
stage_start=$SECONDS
timings=()
stage() {
    timings+=("$(printf '%5d s  %s' $((SECONDS - stage_start)) "$stage_name")")
    stage_name="$1"
    stage_start=$SECONDS
    echo "== $1"
}
report_timings() {
    stage "done"
    printf 'test.sh: %s\n' "${timings[@]}"
    echo "test.sh: $SECONDS s in all"
}

scripts/setup.sh
jobs=$(nproc)
# The optimised and the shipped builds compile the same sources with the same flags in two folders
# of the same depth: relative paths and no working directory in the hash let the second reuse the
# first's objects. The sanitizer builds would only fill the cache.
export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=true

stage "format"
scripts/check-format.sh

stage "layering"
scripts/check-layering.py

stage "clang-tidy (the component)"
# Configuring is enough: clang-tidy reads build/dev/compile_commands.json, not the objects.
cmake --preset dev >/dev/null
scripts/check-tidy.sh

stage "thread-safety analysis (clang)"
scripts/check-thread-safety.sh

if ((quick == 0)); then
    export CCACHE_DISABLE=true
    stage "fuzz targets"
    cmake --preset fuzz >/dev/null
    cmake --build --preset fuzz -j "$jobs"
    scripts/fuzz.sh "${FUZZ_SECONDS:-20}"

    stage "address+undefined sanitizer build"
    cmake --preset asan >/dev/null
    cmake --build --preset asan -j "$jobs"
    # The report's scripts in Chromium (label browser) are no sanitizer's to check: the optimised build
    # runs them.
    ctest --preset asan -j "$jobs" -LE browser
    # What the cluster test counted (acknowledged writes, losses, propagation), for the log.
    grep -h '^cluster:' build/asan/Testing/Temporary/LastTest.log || true

    stage "thread sanitizer: the suites that run on real threads"
    cmake --preset tsan >/dev/null
    tsan_suites=(tests/scenarios/tovrel_targeting_threads tests/curl/tovrel_curl_tests
                 tests/curl/tovrel_curl_server_tls_tests
                 tests/linux/tovrel_linux_tests tests/linux/tovrel_linux_session_tests
                 tests/server/tovrel_server_http_tests tests/sim/tovrel_sim_fleet_tests)
    cmake --build --preset tsan -j "$jobs" --target "${tsan_suites[@]##*/}" tovrel-server tovrel_capi_test
    # Reports inside libraries not built with ThreadSanitizer are suppressed there, each saying why.
    export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/tests/support/tsan.supp"
    for suite in "${tsan_suites[@]}"; do
        "build/tsan/$suite" --gtest_brief=1
    done
    # The C interface with its loop on the caller's thread and on a thread of its own.
    XDG_DATA_HOME="$(mktemp -d)" \
        build/tsan/tests/capi/tovrel_capi_test build/tsan/server/tovrel-server
    unset TSAN_OPTIONS
fi

unset CCACHE_DISABLE
stage "optimised build"
cmake --preset dev >/dev/null
cmake --build --preset dev -j "$jobs"
# In a full run the sanitizer builds have already run the server's HTTP suite twice (ASan and TSan) and
# the cluster test (alone for half a minute: three replicas, HAProxy and PostgreSQL under load); the
# optimised build runs the rest, the console's browser flow against its server among them.
if ((quick == 0)); then
    ctest --preset dev -j "$jobs" -LE 'cluster|http'
else
    ctest --preset dev -j "$jobs"
    grep -h '^cluster:' build/dev/Testing/Temporary/LastTest.log || true
fi

if ((quick == 0)); then
    stage "shared libraries: install, consumers, bindings, packages"
    scripts/embedding-guide.py --check
    cmake --preset release >/dev/null
    cmake --build --preset release -j "$jobs"
    ccache --show-stats 2>/dev/null | grep -E "Hits|Misses" || true
    scripts/check-install.sh build/release
fi
report_timings
