#!/usr/bin/env bash
# Installs every Debian package that the build, the tests and the tools need.
# Idempotent: does nothing when everything is already there. Run as root (or with sudo).
set -euo pipefail

usage() {
    cat <<'USAGE'
Usage: scripts/setup.sh [--help]

Installs the Debian packages needed to build Tovrel and run its tests
(compilers, CMake, Ninja, ccache, GoogleTest, Google Benchmark, libcurl, SQLite, nlohmann-json,
CLI11, Boost.Beast, clang's libFuzzer runtime, clang-tidy), the linux backend's parts (asio, libgps and
gpsd, libmnl and iproute2, sdbus-c++ and a D-Bus session daemon), Qt 6 with
WebEngine for the screens, and Leaflet and Chromium for tovrel-sim's HTML report and
its browser test, Node.js and npm for the campaign console, PostgreSQL with PostGIS and HAProxy for the server's cluster test. Safe to run again.
USAGE
}
[[ "${1:-}" == "--help" || "${1:-}" == "-h" ]] && { usage; exit 0; }

packages=(
    build-essential cmake g++ clang clang-format clang-tidy libclang-rt-14-dev ninja-build pkg-config
    # a compiler cache: the shipped build reuses the optimised build's objects
    ccache
    # packaging: man pages from --help, Debian packages and their checker
    help2man dpkg-dev file lintian python3-pytest
    googletest libgtest-dev libgmock-dev libbenchmark-dev
    nlohmann-json3-dev libcurl4-openssl-dev libsqlite3-dev sqlite3 libcli11-dev
    libboost1.74-dev libpugixml-dev libssl-dev openssl curl python3
    # tovrel-sim's allocator: a fleet's time is mostly small JSON allocations on every core
    libmimalloc-dev
    # tovrel-server: metrics in the Prometheus format, gzip answers; PostgreSQL with PostGIS as the shared
    # store of several replicas (its tests start a server of their own), HAProxy in front of the replicas
    # in the cluster test; campaign schedules and quiet hours in the tz database's zones
    prometheus-cpp-dev zlib1g-dev libpq-dev postgresql postgresql-15-postgis-3 haproxy
    libhowardhinnant-date-dev tzdata
    # the benchmark scripts' baselines, which the suite runs at tiny sizes (bench/server/*.sh --smoke)
    nginx wrk redis-server libhiredis-dev time
    # linux backend: main loop, positions, reachability, notifications, identifiers
    libasio-dev libgps-dev gpsd libmnl-dev iproute2
    libsdbus-c++-dev libsystemd-dev dbus-daemon python3-dbus python3-gi uuid-dev
    # Qt backend, tovrel-demo and the screenshot tests
    qt6-base-dev qt6-webengine-dev qt6-image-formats-plugins libgl-dev fonts-dejavu-core
    # tovrel-sim's report: the map library it embeds, and the browser its test loads the report in
    libjs-leaflet chromium
    # the campaign console: built with npm from console/package-lock.json, tested in Chromium
    nodejs
)
# Some Node.js packages carry npm themselves (and conflict with Debian's); ask for it only when missing.
command -v npm >/dev/null || packages+=(npm)

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if ((${#missing[@]} == 0)); then
    echo "setup: all ${#packages[@]} packages present"
    exit 0
fi

echo "setup: installing ${missing[*]}"
SUDO=""
[[ $(id -u) -ne 0 ]] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
