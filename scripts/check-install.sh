#!/usr/bin/env bash
# Checks Tovrel as a user gets it, from a build of the shared libraries (the `release` preset):
#  1. `cmake --install` into a temporary prefix; each shared library has a SONAME and exports only the
#     public API (names in tovrel::, the C interface's tovrel_*);
#  2. the embedding examples build against that prefix alone: with find_package(Tovrel), with
#     pkg-config only, the C host and the Qt host;
#  3. they run against the installed tovrel-server on 127.0.0.1, and so do the Python package's tests;
#  4. CPack's Debian packages: lintian finds no error in them; packaging the build a second time gives
#     the same bytes, and so does compiling libtovrel1's and libtovrel-c1's libraries again from
#     scratch in another folder (scripts/check-rebuild.sh); a C host's packages (the C interface, the
#     Python package and what they depend on) bring no Qt, and the C host builds and runs from them alone;
#  5. all the packages install into a fresh root, where no file holds the source or build folder's
#     path, `tovrel-sim --version` runs, the server serves the console it carries, and the server's
#     systemd unit verifies.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    echo "Usage: scripts/check-install.sh [BUILD_DIR]   (default build/release; configure it with --preset release)"
}
[[ "${1:-}" == "--help" || "${1:-}" == "-h" ]] && { usage; exit 0; }
build="${1:-build/release}"
[[ -f "$build/CMakeCache.txt" ]] || { usage >&2; exit 2; }

work=$(mktemp -d)
# Apart from $work: kept when the libraries compiled again differ, to look into.
rebuild=$(mktemp -d)
keep_rebuild=""
server_pid=""
console_pid=""
again_pid=""
rebuild_pid=""
cleanup() {
    # The compile's whole session (ninja, killed, ends the compilers it started).
    [[ -z "$rebuild_pid" ]] || { kill -- -"$rebuild_pid" && wait "$rebuild_pid"; } 2>/dev/null || true
    [[ -z "$keep_rebuild" ]] && rm -rf "$rebuild"
    [[ -n "$again_pid" ]] && kill "$again_pid" 2>/dev/null && wait "$again_pid" 2>/dev/null
    [[ -n "$server_pid" ]] && kill "$server_pid" 2>/dev/null && wait "$server_pid" 2>/dev/null
    [[ -n "$console_pid" ]] && kill "$console_pid" 2>/dev/null && wait "$console_pid" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "check-install: $*" >&2; exit 1; }
step() { echo "-- $*"; }

# The libraries of libtovrel1 and libtovrel-c1 compiled again from scratch, compared with the packages'
# below: started now and niced, the compile takes what the consumers, hosts and tests leave of the CPU.
# In a session of its own, so that cleanup ends the compilers with it.
rebuild_start=$SECONDS
setsid nice -n 10 scripts/check-rebuild.sh compile "$build" "$rebuild" >"$work/rebuild.log" 2>&1 &
rebuild_pid=$!

prefix="$work/prefix"
step "install into $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log"
libdir=$(find "$prefix" -name 'libtovrel.so' -printf '%h\n' | head -1)
[[ -n "$libdir" ]] || fail "no libtovrel.so installed"

step "shared libraries: SONAME and exported names"
for lib in "$libdir"/libtovrel*.so.[0-9]*.*; do
    name=$(basename "$lib")
    soname=$(objdump -p "$lib" | awk '/SONAME/ {print $2}')
    [[ "$soname" == "${name%%.so.*}.so.1" ]] || fail "$name: SONAME '$soname'"
    # Every defined dynamic symbol names Tovrel's API: a tovrel:: entity (or its vtable, typeinfo, a
    # template instantiated over one) or a tovrel_ function of the C interface.
    stray=$(nm -D --defined-only -C "$lib" | cut -d' ' -f3- | grep -v 'tovrel' | grep -vE '^(_init|_fini|TOVREL_[0-9]+)$' || true)
    [[ -z "$stray" ]] || fail "$name exports names outside the public API:"$'\n'"$(head -20 <<<"$stray")"
    printf '   %-28s %-22s %6d symbols, %s\n' "$name" "$soname" "$(nm -D --defined-only "$lib" | wc -l)" \
        "$(du -h "$lib" | cut -f1)"
done
internal=$(nm -D --defined-only -C "$libdir/libtovrel.so" | grep -E 'tovrel::targeting::|tovrel::(formatF|logLine)\b' || true)
[[ -z "$internal" ]] || fail "libtovrel.so exports internals:"$'\n'"$internal"

export CMAKE_PREFIX_PATH="$prefix"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
step "consumer with find_package(Tovrel COMPONENTS linux)"
cmake -S examples/embedding/cpp-host -B "$work/cpp-host" -DCMAKE_BUILD_TYPE=Release >"$work/consumer.log"
cmake --build "$work/cpp-host" -j2 >>"$work/consumer.log" || { cat "$work/consumer.log"; fail "cpp-host did not build"; }
step "the same host with pkg-config only"
make -s -C examples/embedding/cpp-host OUT="$work/cpp-host-pkgconfig" CXXFLAGS="-O1 -Wall -Wextra -Werror"
if [[ -f "$prefix/include/tovrel/tovrel.h" ]]; then
    step "C host (pkg-config tovrel-c)"
    make -s -C examples/embedding/c-host OUT="$work/c-host" CFLAGS="-O1 -Wall -Wextra -Werror"
fi
if [[ -f "$libdir/libtovrel-qt.so" ]]; then
    step "Qt host with find_package(Tovrel COMPONENTS qt)"
    cmake -S examples/embedding/qt-host -B "$work/qt-host" -DCMAKE_BUILD_TYPE=Release >"$work/qt.log"
    cmake --build "$work/qt-host" -j2 >>"$work/qt.log" || { cat "$work/qt.log"; fail "qt-host did not build"; }
fi

step "installed tovrel-server on 127.0.0.1"
"$prefix/bin/tovrel-server" --version
data="$prefix/share/tovrel"
"$prefix/bin/tovrel-server" import "$data/places/munich.geojson" --db "$work/service.db" >/dev/null
"$prefix/bin/tovrel-server" serve --db "$work/service.db" --listen 127.0.0.1:0 --admin-listen off --content "$data/content" \
    >"$work/server.out" 2>"$work/server.err" &
server_pid=$!
for _ in $(seq 100); do
    port=$(grep -oE '127\.0\.0\.1:[0-9]+' "$work/server.out" | head -1 | cut -d: -f2 || true)
    [[ -n "$port" ]] && break
    sleep 0.1
done
[[ -n "${port:-}" ]] || { cat "$work/server.err"; fail "tovrel-server did not start"; }
service="http://127.0.0.1:$port"
route="$data/routes/drive-in.gpx"

export XDG_DATA_HOME="$work/xdg"
run_host() {
    local name=$1
    shift
    if ! timeout 60 "$@" >"$work/$name.log" 2>&1; then
        tail -30 "$work/$name.log"
        fail "$name failed"
    fi
    echo "   $name: $(tail -1 "$work/$name.log"), $(grep -c '^notification' "$work/$name.log" || true) notifications"
}
run_host cpp-host "$work/cpp-host/cpp-host" "$service" demo-key "$route" 6 60
run_host cpp-host-pkgconfig "$work/cpp-host-pkgconfig" "$service" demo-key "$route" 3 60
[[ -x "$work/c-host" ]] && run_host c-host "$work/c-host" "$service" demo-key "$route" 6 60
[[ -x "$work/qt-host/qt-host" ]] &&
    QT_QPA_PLATFORM=offscreen QTWEBENGINE_DISABLE_SANDBOX=1 run_host qt-host "$work/qt-host/qt-host" "$service" demo-key "$route" 4
python_dir=$(find "$prefix" -type d -path '*-packages/tovrel' -printf '%h\n' | head -1)
# Debian's interpreter, for which python3-pytest is installed (PYTHON overrides).
python="${PYTHON:-/usr/bin/python3}"
if [[ -n "$python_dir" ]]; then
    step "Python package from the prefix ($python_dir)"
    PYTHONPATH="$python_dir" \
        timeout 300 "$python" examples/embedding/python-host/host.py "$service" demo-key "$route" 6 60 >"$work/python.log" 2>&1 ||
        { cat "$work/python.log"; fail "python-host failed"; }
    echo "   python-host: $(tail -1 "$work/python.log")"
    PYTHONPATH="$python_dir" TOVREL_SERVER="$prefix/bin/tovrel-server" TOVREL_DATA_DIR="$data" \
        timeout 600 "$python" -m pytest -q -p no:cacheprovider bindings/python/tests
fi

step "Debian packages"
rm -f "$build"/*.deb
(cd "$build" && cpack -G DEB >"$work/cpack.log" 2>&1) || { tail -30 "$work/cpack.log"; fail "cpack failed"; }
debs=("$build"/*.deb)
declare -A deb_of
for deb in "${debs[@]}"; do
    deb_of[$(dpkg-deb -f "$deb" Package)]=$deb
    printf '   %-52s %5s  %s\n' "$(basename "$deb")" "$(du -h "$deb" | cut -f1)" "$(dpkg-deb -f "$deb" Depends)"
done

# The same build packaged a second time, in another folder, while lintian reads the first packages.
# This covers what packaging adds: file order, time stamps, owners, control files, compression and
# anything of the packaging folder. Both packagings take the same built files: what compiling in another
# folder would change (paths, build IDs, padding) is checked after, by compiling again.
(cd "$build" && exec cpack -G DEB -B "$work/again" >"$work/cpack-again.log" 2>&1) &
again_pid=$!

step "lintian"
# initial-upload-closes-no-bugs: the packages are not uploaded to Debian's archive, so there is no
# intent-to-package bug for their first changelog entry to close.
lintian_status=0
lintian --fail-on error --tag-display-limit 0 --suppress-tags initial-upload-closes-no-bugs "${debs[@]}" \
    >"$work/lintian.log" 2>&1 || lintian_status=$?
grep -v '^E: ' "$work/lintian.log" | sed 's/^/   /' || true
if grep -q '^E: ' "$work/lintian.log" || ((lintian_status != 0)); then
    grep '^E: ' "$work/lintian.log" >&2 || true
    fail "lintian found errors in the packages (status $lintian_status)"
fi
if [[ -d console/node_modules ]]; then
    # The console bundles its npm dependencies: each must be named, with its licence, in the server's
    # copyright file.
    dpkg-deb --fsys-tarfile "${deb_of[tovrel-server]}" |
        tar -xOf - ./usr/share/doc/tovrel-server/copyright >"$work/server.copyright"
    python3 - "$work/server.copyright" <<'PY' || fail "the console's npm packages are missing from tovrel-server's copyright"
import json, re, sys
text = open(sys.argv[1]).read()
for name in json.load(open("console/package.json")).get("dependencies", {}):
    licence = json.load(open(f"console/node_modules/{name}/package.json")).get("license")
    stanza = re.search(rf"^Files: console/node_modules/{re.escape(name)}/\*\n(?:[^\n]+\n)*?License: (\S+)", text, re.M)
    if not stanza or stanza.group(1) != licence:
        sys.exit(f"check-install: {name} ({licence}) has no stanza with its licence")
PY
fi

step "reproducible: the same build packaged again, in another folder"
wait "$again_pid" || { tail -30 "$work/cpack-again.log"; fail "cpack failed the second time"; }
again_pid=""
for deb in "${debs[@]}"; do
    cmp -s "$deb" "$work/again/$(basename "$deb")" || fail "$(basename "$deb") differs when packaged again"
done
echo "   ${#debs[@]} packages, byte for byte the same"

step "reproducible: libtovrel1's and libtovrel-c1's libraries compiled again from scratch, in another folder, without ccache"
waited=$SECONDS
wait "$rebuild_pid" || { rebuild_pid=""; cat "$work/rebuild.log"; fail "compiling the libraries again failed"; }
rebuild_pid=""
cat "$work/rebuild.log"
scripts/check-rebuild.sh compare "$rebuild" "${deb_of[libtovrel1]}" "${deb_of[libtovrel-c1]}" ||
    { keep_rebuild=1; fail "the libraries compiled again differ from the packaged ones (kept in $rebuild)"; }
echo "   $((SECONDS - rebuild_start)) s from the start of the compile, alongside the steps above; $((SECONDS - waited)) s waited for it here"

step "a C host's packages: the C interface and the Python package, with what they depend on"
want=(libtovrel-c-dev python3-tovrel)
c_packages=()
while ((${#want[@]} > 0)); do
    package=${want[0]}
    want=("${want[@]:1}")
    [[ -n "${deb_of[$package]:-}" && " ${c_packages[*]} " != *" $package "* ]] || continue
    c_packages+=("$package")
    read -ra depends <<<"$(dpkg-deb -f "${deb_of[$package]}" Depends | sed -E 's/\([^)]*\)//g; s/[,|]/ /g')"
    want+=("${depends[@]}")
done
c_root="$work/c-root"
mkdir -p "$c_root/var/lib/dpkg/updates" "$c_root/var/lib/dpkg/info"
touch "$c_root/var/lib/dpkg/status"
c_debs=()
for package in "${c_packages[@]}"; do c_debs+=("${deb_of[$package]}"); done
dpkg --root="$c_root" --force-depends --force-script-chrootless --log=/dev/null -i "${c_debs[@]}" \
    >"$work/dpkg-c.log" 2>&1 || { cat "$work/dpkg-c.log"; fail "the C host's packages did not install"; }
dpkg-query --admindir="$c_root/var/lib/dpkg" -W -f='   ${Package} ${Version}: ${Depends}\n'
qt=$(dpkg-query --admindir="$c_root/var/lib/dpkg" -W -f='${Package} ${Depends}\n' | grep -iE 'qt' || true)
[[ -z "$qt" ]] || fail "a C host's packages bring Qt:"$'\n'"$qt"
qt=$(find "$c_root" -type f -name '*.so*' -exec readelf -d {} + 2>/dev/null | grep -iE 'NEEDED.*qt' || true)
[[ -z "$qt" ]] || fail "a library of the C host's packages links Qt:"$'\n'"$qt"
c_pc=$(find "$c_root" -name tovrel-c.pc -printf '%h\n')
PKG_CONFIG_PATH="$c_pc" make -s -C examples/embedding/c-host OUT="$work/c-host-deb" CFLAGS="-O1 -Wall -Wextra -Werror"
run_host c-host-from-packages "$work/c-host-deb" "$service" demo-key "$route" 3 60

step "all the packages in a fresh root"
root="$work/root"
mkdir -p "$root/var/lib/dpkg/updates" "$root/var/lib/dpkg/info"
touch "$root/var/lib/dpkg/status"
# The packages' dependencies (libcurl, Qt, ...) are this machine's; only Tovrel's go into the root.
dpkg --root="$root" --force-depends --force-script-chrootless --log=/dev/null -i "${debs[@]}" \
    >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; fail "the packages did not install"; }
leaks=$(grep -rlF -e "$(pwd -P)" -e "$(cd "$build" && pwd -P)" "$root/usr" || true)
[[ -z "$leaks" ]] || fail "packaged files hold the source or build folder's path:"$'\n'"$leaks"
"$root/usr/bin/tovrel-sim" --version
"$root/usr/bin/tovrel-server" --version
[[ -f "$root/usr/share/man/man1/tovrel-sim.1.gz" ]] || fail "no man page for tovrel-sim in the package"
if grep -q '^TOVREL_BUILD_CONSOLE:BOOL=ON' "$build/CMakeCache.txt"; then
    step "the console, served by the packaged tovrel-server from its own share/tovrel"
    printf 'check-install-admin-token\n' >"$work/token"
    chmod 600 "$work/token"
    "$root/usr/bin/tovrel-server" serve --db "$work/console.db" --listen 127.0.0.1:0 --admin-listen 127.0.0.1:0 \
        --admin-token-file "$work/token" >"$work/console.out" 2>&1 &
    console_pid=$!
    admin=""
    for _ in $(seq 100); do
        admin=$(grep -oE '"admin":"127\.0\.0\.1:[0-9]+"' "$work/console.out" | head -1 | grep -oE '[0-9]+"$' | tr -d '"' || true)
        [[ -n "$admin" ]] && break
        sleep 0.1
    done
    [[ -n "$admin" ]] || { cat "$work/console.out"; fail "the packaged tovrel-server did not start"; }
    curl -fsS "http://127.0.0.1:$admin/console/" | grep -q '<script type="module"' ||
        fail "the packaged tovrel-server does not serve the console"
    kill "$console_pid"
    wait "$console_pid" 2>/dev/null || true
    console_pid=""
fi
unit=$(find "$root" -name tovrel-server.service | head -1)
[[ -n "$unit" ]] || fail "no systemd unit in the tovrel-server package"
if command -v systemd-analyze >/dev/null; then
    step "the systemd unit: verified, and its sandbox rated"
    sed "s#/usr/bin/tovrel-server#$root/usr/bin/tovrel-server#" "$unit" >"$work/tovrel-server.service"
    systemd-analyze verify --man=no "$work/tovrel-server.service" || fail "the systemd unit does not verify"
    systemd-analyze security --offline=yes "$work/tovrel-server.service" 2>&1 | tail -1
fi
echo "check-install: all good"
