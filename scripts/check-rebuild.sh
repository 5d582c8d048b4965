#!/usr/bin/env bash
# The shipped libraries compiled again from scratch must be the same bytes: the libraries of libtovrel1
# and libtovrel-c1, compiled in another folder without ccache and with BUILD_DIR's settings, against the
# files of those packages. check-install.sh starts the compile early and compares once cpack has run.
#   scripts/check-rebuild.sh compile BUILD_DIR OUT_DIR   compile into OUT_DIR/<folder>, install as cpack does into OUT_DIR/root
#   scripts/check-rebuild.sh compare OUT_DIR DEB...      compare OUT_DIR/root with the packages' files
set -euo pipefail
cd "$(dirname "$0")/.."

usage() { sed -n '2,6p' "$0" | sed 's/^# \{0,1\}//'; }
fail() { echo "check-rebuild: $*" >&2; exit 1; }

# The targets whose libraries the two packages hold (install components runtime and c). Installing a
# component fails when one of its files was not built, so a library added to either package is not
# left out unnoticed.
targets=(tovrel tovrel_view_tree tovrel_http_curl tovrel_linux tovrel_c)
components=(runtime c)

compile() {
    local build out start again settings generator
    build=$(cd "$1" && pwd -P)
    mkdir -p "$2"
    out=$(cd "$2" && pwd -P)
    start=$SECONDS
    # A path longer than the build's: what is sized by the path (the RPATH's padding, string tables)
    # would differ as well as what holds it.
    again="$out/again$(printf '%*s' $((${#build} + 40)) '' | tr ' ' _)"
    # The build's own settings (the release preset's and any added to it, not those naming its folder):
    # only the folder differs.
    mapfile -t settings < <(sed -nE 's/^([A-Za-z0-9_.+-]+:(BOOL|STRING|FILEPATH|PATH))=(.*)$/-D\1=\3/p' "$build/CMakeCache.txt" |
        grep -vF "$build" || true)
    generator=$(sed -n 's/^CMAKE_GENERATOR:INTERNAL=//p' "$build/CMakeCache.txt")
    # Objects from the cache would be the build's own: each one is compiled here.
    export CCACHE_DISABLE=1
    cmake -S . -B "$again" -G "$generator" "${settings[@]}" >"$out/configure.log" 2>&1 ||
        { tail -30 "$out/configure.log"; fail "configuring $again failed"; }
    cmake --build "$again" -j "$(nproc)" --target "${targets[@]}" >"$out/build.log" 2>&1 ||
        { tail -30 "$out/build.log"; fail "compiling in $again failed"; }
    for component in "${components[@]}"; do
        DESTDIR="$out/root" cmake --install "$again" --component "$component" --strip >>"$out/install.log" 2>&1 ||
            { tail -5 "$out/install.log"; fail "installing $component failed: a file of it is not built by ${targets[*]}?"; }
    done
    echo "   ${targets[*]}: $(grep -c '^\[.*Building' "$out/build.log") objects compiled from scratch in $((SECONDS - start)) s, in $again"
}

# FILE's sections: name, offset and size (hexadecimal).
sections() {
    readelf -S -W "$1" | sed -nE 's/^ *\[ *[0-9]+\] ([^ ]+) +[^ ]+ +[0-9a-f]+ ([0-9a-f]+) ([0-9a-f]+) .*/\1 \2 \3/p'
}

# Where two ELF files first differ (a section, or the headers), and their sections of another size.
where_differ() {
    local first section resized
    first=$(cmp "$1" "$2" | grep -oE 'byte [0-9]+' | grep -oE '[0-9]+' || true)
    section=$(sections "$1" | while read -r name offset size; do
        ((first - 1 >= 16#$offset && first - 1 < 16#$offset + 16#$size)) && echo "$name" && break
    done)
    resized=$(paste -d' ' <(sections "$1") <(sections "$2") | while read -r name _ size _ _ other; do
        [[ "$size" == "$other" ]] || printf ' %s (%d -> %d bytes)' "$name" $((16#$size)) $((16#$other))
    done)
    echo "from byte $first, in ${section:-the ELF headers}; sections of another size:${resized:- none}"
}

compare() {
    local out=$1 differ line packaged rebuilt
    shift
    rm -rf "$out/packaged"
    for deb in "$@"; do dpkg-deb -x "$deb" "$out/packaged"; done
    [[ -n "$(find "$out/packaged" -name '*.so.*' -type f)" ]] || fail "no shared library in $*"
    # diff's status 1: files differ, 2: trouble (no $out/root, an unreadable file).
    diff -r -q --no-dereference "$out/packaged" "$out/root" >"$out/differ" || (($? == 1)) || fail "diff failed"
    mapfile -t differ <"$out/differ"
    if ((${#differ[@]} == 0)); then
        echo "   $(find "$out/packaged" -type f | wc -l) files of $(printf '%s ' "${@##*/}")the same as compiled again"
        return
    fi
    echo "check-rebuild: the packages differ from the same sources compiled again in another folder:" >&2
    printf '   %s\n' "${differ[@]}" >&2
    for line in "${differ[@]}"; do
        [[ "$line" == "Files "* ]] || continue
        read -r _ packaged _ rebuilt _ <<<"$line"
        if command -v diffoscope >/dev/null; then
            diffoscope --text - "$packaged" "$rebuilt" | head -60 >&2 || true
        elif [[ "$(head -c 4 "$packaged")" == $'\x7fELF' ]]; then
            echo "   ${packaged#"$out/packaged"}: $(where_differ "$packaged" "$rebuilt")" >&2
            cmp -l "$packaged" "$rebuilt" | head -5 | sed 's/^/      /' >&2 || true
        fi
    done
    # The build ID hashes the whole linked file: when it alone differs, what strip took away (debug info,
    # symbols) differs, which the unstripped libraries show. With hash_dir off (test.sh), ccache hashes
    # no -ffile-prefix-map: after a change of them it serves objects compiled under the old ones.
    echo "   unstripped: the build's lib/ and $(echo "$out"/again*)/lib/ (readelf --debug-dump=info | grep -E 'DW_AT_(name|comp_dir)');" \
        "the build's objects from ccache compiled under other path maps? (CCACHE_RECACHE=1)" >&2
    exit 1
}

if [[ "${1:-}" == compile && $# == 3 && -f "${2:-}/CMakeCache.txt" ]]; then
    compile "$2" "$3"
elif [[ "${1:-}" == compare && $# -ge 3 ]]; then
    compare "${@:2}"
elif [[ "${1:-}" == --help || "${1:-}" == -h ]]; then
    usage
else
    usage >&2
    exit 2
fi
