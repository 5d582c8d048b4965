#!/usr/bin/env bash
# Wall time, peak RSS and places/s of `tovrel-server import` on a generated place file, beside
# sqlite3's own CSV .import of the same rows, and the same into PostgreSQL beside psql's COPY of the
# rows, measured in the same run. CI runs it in its smoke mode only.
set -euo pipefail
cd "$(dirname "$0")/../.."
source bench/server/common.sh

usage() {
    cat <<'USAGE'
Usage: bench/server/run_import.sh [--smoke] [--help]

Installs time and sqlite3 if missing, builds tovrel-server in $BUILD_DIR (default build/server),
writes a seeded GeoJSON file of PLACES places (default 1,000,000; one offer each, ten campaigns,
~370 bytes a place, bench/server/make_places.py) and the same rows as CSV, then runs RUNS times
(default 3), each under /usr/bin/time -v into a fresh database:
  tovrel-server import FILE           the GeoJSON file, checked and written in one transaction
  baseline: sqlite3 .import           the same places, offers and links from CSV into the same
                                      schema, in one transaction, synchronous=NORMAL as the server
The baseline is what storing these rows costs SQLite with no JSON to read and nothing to check: the
floor of any importer that writes them through SQLite, so the ratio is the price of reading and
validating GeoJSON (a plain read of the file is printed too, for the I/O part). JSON tools in
Python or jq are not a fair floor: they are slower than the import itself.
Prints the medians: wall time, peak RSS (the limit for 1M places is 500 MB), places/s, and the
ratio import / baseline. COMPARE_WITH=/path/to/another/tovrel-server adds that binary's import
(an older build, say) to the same runs.
Then the same into PostgreSQL (a server of its own in the temporary folder, installed if missing),
RUNS times, each into a fresh database:
  tovrel-server import FILE --db postgresql://...
  baseline: psql \copy             the same CSV rows into the same schema (its indexes and triggers)
                                    through staging tables, in one transaction
and the medians, the ratio and whether the import keeps within 15 s for 1M places.
--smoke: one run of 200 places.
Environment: BUILD_DIR, PLACES, RUNS, WORK_DIR (default a temporary folder; the file is ~370 MB).
USAGE
}
[[ "${1:-}" == "--help" || "${1:-}" == "-h" ]] && { usage; exit 0; }
[[ "${1:-}" == "--smoke" ]] && PLACES=200 RUNS=1

BUILD_DIR=${BUILD_DIR:-build/server}
PLACES=${PLACES:-1000000}
RUNS=${RUNS:-3}
install_packages time sqlite3 postgresql postgresql-15-postgis-3
build_targets "$BUILD_DIR" tovrel-server
server="$BUILD_DIR/server/tovrel-server"

tmp=$(mktemp -d "${WORK_DIR:-${TMPDIR:-/tmp}}/tovrel-import.XXXXXX")
stop_on_exit "$tmp"
echo "writing $PLACES places"
python3 bench/server/make_places.py "$PLACES" "$tmp/places.geojson" "$tmp/csv"
printf 'file: %s bytes\n' "$(stat -c %s "$tmp/places.geojson")"

# timed OUT COMMAND...: runs COMMAND under /usr/bin/time -v and prints "seconds peak-kB".
timed() {
    local out=$1
    shift
    /usr/bin/time -v -o "$out.time" "$@" >"$out.log" 2>&1 || { cat "$out.log" "$out.time" >&2; exit 1; }
    awk -F': ' '/Elapsed \(wall clock\)/ {n = split($2, t, ":"); s = 0; for (i = 1; i <= n; i++) s = s * 60 + t[i]}
                /Maximum resident set size/ {kb = $2}
                END {printf "%.2f %d\n", s, kb}' "$out.time"
}

import_into() { # BINARY DB
    timed "$2" "$1" import "$tmp/places.geojson" --db "$2"
}

# Both baselines stage the CSV rows in tables p, o and po, then write them into the schema's tables.
insert_staged="INSERT INTO places(id, name, lat, lon, radius) SELECT * FROM p;
INSERT INTO offers(id, campaign, event_name, alert_text, media_type, media_url, tags, dwell_time, event_type)
    SELECT * FROM o;
INSERT INTO place_offers(place, offer) SELECT * FROM po;"

baseline_into() { # DB
    "$server" apps add bench-key Bench --db "$1" >/dev/null
    local campaigns="" c
    for c in $(seq 0 9); do
        campaigns+="INSERT INTO campaigns(id, name, start_date, end_date) VALUES($((c + 1)), 'Campaign $c', '2020-01-01', '2035-12-31');"
    done
    # The tables have more columns than the CSV (each with a default), which .import would fill with
    # NULL: the rows go through staging tables of the CSV's own columns.
    cat >"$1.sql" <<SQL
PRAGMA synchronous=NORMAL;
PRAGMA foreign_keys=ON;
BEGIN;
$campaigns
CREATE TEMP TABLE p(id, name, lat, lon, radius);
CREATE TEMP TABLE o(id, campaign, event_name, alert_text, media_type, media_url, tags, dwell_time, event_type);
CREATE TEMP TABLE po(place, offer);
.import --csv $tmp/csv/places.csv p
.import --csv $tmp/csv/offers.csv o
.import --csv $tmp/csv/place_offers.csv po
$insert_staged
COMMIT;
SQL
    timed "$1" sqlite3 "$1" ".read $1.sql"
}

ours_t=() ours_m=() base_t=() base_m=() read_t=() other_t=() other_m=() ratios=()
for run in $(seq "$RUNS"); do
    read -r rt _ < <(timed "$tmp/read" cat "$tmp/places.geojson")
    read -r bt bm < <(baseline_into "$tmp/base$run.db")
    read -r ot om < <(import_into "$server" "$tmp/ours$run.db")
    rows=$(sqlite3 "$tmp/ours$run.db" "SELECT COUNT(*) FROM places")
    [[ "$rows" == "$PLACES" ]] || { echo "the import wrote $rows places, not $PLACES" >&2; exit 1; }
    if [[ -n "${COMPARE_WITH:-}" ]]; then
        read -r ct cm < <(import_into "$COMPARE_WITH" "$tmp/other$run.db")
        other_t+=("$ct")
        other_m+=("$cm")
    fi
    rm -f "$tmp"/*.db "$tmp"/*.db-wal "$tmp"/*.db-shm
    printf 'run %d: import %ss %d MB; baseline %ss %d MB; read %ss\n' "$run" "$ot" $((om / 1024)) "$bt" $((bm / 1024)) "$rt"
    ours_t+=("$ot") ours_m+=("$om") base_t+=("$bt") base_m+=("$bm") read_t+=("$rt")
    ratios+=("$(awk -v a="$ot" -v b="$bt" 'BEGIN {printf "%.2f", a / b}')")
done

line() { # NAME SECONDS KB
    awk -v name="$1" -v s="$2" -v kb="$3" -v n="$PLACES" \
        'BEGIN {printf "  %-28s %7.2f s  %6.0f MB peak RSS  %9.0f places/s\n", name, s, kb / 1024, n / s}'
}
echo "medians of $RUNS runs, $PLACES places:"
line "tovrel-server import" "$(median "${ours_t[@]}")" "$(median "${ours_m[@]}")"
line "baseline: sqlite3 .import" "$(median "${base_t[@]}")" "$(median "${base_m[@]}")"
if [[ -n "${COMPARE_WITH:-}" ]]; then
    line "import by COMPARE_WITH" "$(median "${other_t[@]}")" "$(median "${other_m[@]}")"
fi
printf '  %-28s %7.2f s\n' "plain read of the file" "$(median "${read_t[@]}")"
printf '  ratio import / baseline (median of the runs): %s (runs: %s)\n' "$(median "${ratios[@]}")" "${ratios[*]}"
awk -v kb="$(median "${ours_m[@]}")" 'BEGIN {printf "  peak RSS %s 500 MB\n", (kb <= 500 * 1024) ? "within" : "ABOVE"}'

# PostgreSQL: fresh databases on one server of this run's own.
start_postgres "$tmp"
pg_url="postgresql://postgres@127.0.0.1:$pg_port"
psql_to() { # DB ARGS...
    local db=$1
    shift
    psql -q -v ON_ERROR_STOP=1 -h 127.0.0.1 -p "$pg_port" -U postgres -d "$db" "$@"
}

pg_baseline_into() { # DB
    psql_to postgres -c "CREATE DATABASE $1"
    "$server" apps add bench-key Bench --db "$pg_url/$1" >/dev/null
    cat >"$tmp/$1.sql" <<SQL
BEGIN;
INSERT INTO campaigns(id, name, start_date, end_date)
    SELECT c, 'Campaign ' || (c - 1), '2020-01-01', '2035-12-31' FROM generate_series(1, 10) c;
CREATE TEMP TABLE p(id bigint, name text, lat float8, lon float8, radius float8);
CREATE TEMP TABLE o(id bigint, campaign bigint, event_name text, alert_text text, media_type text, media_url text,
                    tags text, dwell_time integer, event_type integer);
CREATE TEMP TABLE po(place bigint, offer bigint);
\\copy p FROM '$tmp/csv/places.csv' WITH (FORMAT csv)
\\copy o FROM '$tmp/csv/offers.csv' WITH (FORMAT csv)
\\copy po FROM '$tmp/csv/place_offers.csv' WITH (FORMAT csv)
$insert_staged
COMMIT;
SQL
    timed "$tmp/$1" psql -q -v ON_ERROR_STOP=1 -h 127.0.0.1 -p "$pg_port" -U postgres -d "$1" -f "$tmp/$1.sql"
}

# The schema is made first (as the baseline's is), so that only the import is timed.
pg_import_into() { # BINARY DB
    psql_to postgres -c "CREATE DATABASE $2"
    "$1" apps add bench-key Bench --db "$pg_url/$2" >/dev/null
    timed "$tmp/$2" "$1" import "$tmp/places.geojson" --db "$pg_url/$2"
}

pg_ours_t=() pg_ours_m=() pg_base_t=() pg_other_t=() pg_other_m=() pg_ratios=()
for run in $(seq "$RUNS"); do
    read -r bt _ < <(pg_baseline_into "base$run")
    read -r ot om < <(pg_import_into "$server" "ours$run")
    if [[ -n "${COMPARE_WITH:-}" ]]; then
        read -r ct cm < <(pg_import_into "$COMPARE_WITH" "other$run")
        pg_other_t+=("$ct") pg_other_m+=("$cm")
        psql_to postgres -c "DROP DATABASE other$run"
    fi
    rows=$(psql_to "ours$run" -At -c "SELECT COUNT(*) FROM places")
    [[ "$rows" == "$PLACES" ]] || { echo "the import into PostgreSQL wrote $rows places, not $PLACES" >&2; exit 1; }
    links=$(psql_to "ours$run" -At -c "SELECT COUNT(*) FROM place_offers")
    [[ "$links" == "$PLACES" ]] || { echo "the import into PostgreSQL linked $links offers, not $PLACES" >&2; exit 1; }
    psql_to postgres -c "DROP DATABASE base$run" -c "DROP DATABASE ours$run"
    printf 'PostgreSQL run %d: import %ss %d MB; baseline %ss\n' "$run" "$ot" $((om / 1024)) "$bt"
    pg_ours_t+=("$ot") pg_ours_m+=("$om") pg_base_t+=("$bt")
    pg_ratios+=("$(awk -v a="$ot" -v b="$bt" 'BEGIN {printf "%.2f", a / b}')")
done
echo "PostgreSQL, medians of $RUNS runs, $PLACES places:"
line "tovrel-server import" "$(median "${pg_ours_t[@]}")" "$(median "${pg_ours_m[@]}")"
if [[ -n "${COMPARE_WITH:-}" ]]; then
    line "import by COMPARE_WITH" "$(median "${pg_other_t[@]}")" "$(median "${pg_other_m[@]}")"
fi
printf '  %-28s %7.2f s  %18s  %9.0f places/s\n' "baseline: psql \\copy" "$(median "${pg_base_t[@]}")" "" \
    "$(awk -v n="$PLACES" -v s="$(median "${pg_base_t[@]}")" 'BEGIN {print n / s}')"
printf '  ratio import / baseline (median of the runs): %s (runs: %s)\n' "$(median "${pg_ratios[@]}")" "${pg_ratios[*]}"
awk -v s="$(median "${pg_ours_t[@]}")" -v n="$PLACES" \
    'BEGIN {printf "  %.1f s per million places: %s 15 s\n", s * 1e6 / n, (s * 1e6 / n <= 15) ? "within" : "ABOVE"}'
