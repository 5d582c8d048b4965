# Helpers shared by the server benchmark scripts (sourced, not run).
#
# Every script takes --smoke: its steps at tiny sizes, a second or two each, so that the test suite sees
# that it still runs (a schema or a flag changed under it fails the build); the figures then mean
# nothing.

# install_packages PKG...: installs the Debian packages that are missing.
install_packages() {
    local missing=()
    for p in "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
    done
    ((${#missing[@]} == 0)) && return 0
    local sudo=""
    [[ $(id -u) -ne 0 ]] && sudo="sudo"
    echo "installing ${missing[*]}"
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# build_targets DIR TARGET...: configures DIR (or re-runs the configure of an existing one) and builds.
# Nothing when TOVREL_BENCH_PREBUILT=1: the test suite's smoke runs use the build they belong to.
build_targets() {
    [[ "${TOVREL_BENCH_PREBUILT:-0}" == 1 ]] && return 0
    local dir=$1
    shift
    if [[ -f "$dir/CMakeCache.txt" ]]; then
        cmake "$dir" >/dev/null
    else
        cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOVREL_BUILD_SIM=OFF -DTOVREL_BUILD_TESTS=OFF \
            -DTOVREL_BUILD_CONSOLE=OFF >/dev/null
    fi
    cmake --build "$dir" -j 2 --target "$@" >/dev/null
}

# build_with_simulator DIR: tovrel-server and tovrel-sim in DIR (a new DIR is configured without the
# tests). Nothing when TOVREL_BENCH_PREBUILT=1.
build_with_simulator() {
    [[ "${TOVREL_BENCH_PREBUILT:-0}" == 1 ]] && return 0
    if [[ ! -f "$1/CMakeCache.txt" ]]; then
        cmake -S . -B "$1" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOVREL_BUILD_TESTS=OFF >/dev/null
    fi
    cmake --build "$1" -j 2 --target tovrel-server tovrel-sim >/dev/null
}

# write_post_script FILE BODY: a wrk script posting BODY as JSON, with TAG replaced by a new name each
# time (so that the tag writes of one device do not all wait for one row's lock).
write_post_script() {
    cat >"$1" <<LUA
wrk.method = "POST"
wrk.headers["Content-Type"] = "application/json"
local body, n = '$2', 0
request = function()
    n = n + 1
    return wrk.format(nil, nil, nil, (body:gsub("TAG", "t" .. n)))
end
LUA
}

# stop_on_exit DIR: when the script ends, stops every process whose PID was added to `pids` and removes
# DIR (the script's temporary folder).
pids=()
stop_on_exit() {
    stop_dir=$1
    trap 'for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; wait "$p" 2>/dev/null || true; done; rm -rf "$stop_dir"' EXIT
}

# free_port: prints a TCP port on 127.0.0.1 that nothing listens on.
free_port() {
    python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# wait_for_port PORT: waits up to 10 s for 127.0.0.1:PORT to accept connections.
wait_for_port() {
    for _ in $(seq 100); do
        if (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; then
            return 0
        fi
        sleep 0.1
    done
    echo "nothing listens on 127.0.0.1:$1" >&2
    return 1
}

# median N...: the median of the numbers given.
median() {
    printf '%s\n' "$@" | sort -g | awk '{a[NR] = $1} END {print (NR % 2) ? a[(NR + 1) / 2] : (a[NR / 2] + a[NR / 2 + 1]) / 2}'
}

# start_postgres DIR: initdb in DIR/pg (as "nobody" when run as root), starts PostgreSQL on a free port
# of 127.0.0.1 (durable settings: fsync and synchronous commit on), creates the database "bench" and
# sets pg_port, pg_pid, pg_bin and pg_db (its address). The server is stopped with the script.
start_postgres() {
    local dir=$1
    pg_bin=$(dirname "$(ls /usr/lib/postgresql/*/bin/postgres | tail -1)")
    mkdir -p "$dir/pg"
    if [[ $(id -u) -eq 0 ]]; then
        chown nobody "$dir/pg"
        chmod a+x "$dir"
    fi
    as_db_user "$pg_bin/initdb" -D "$dir/pg/data" -A trust -U postgres -E UTF8 --locale=C >/dev/null
    pg_port=$(free_port)
    as_db_user "$pg_bin/postgres" -D "$dir/pg/data" -k "$dir/pg" -p "$pg_port" -c listen_addresses=127.0.0.1 ${PG_EXTRA:-} \
        >"$dir/pg/log" 2>&1 &
    pids+=($!)
    wait_for_port "$pg_port"
    pg_pid=$(head -1 "$dir/pg/data/postmaster.pid")
    for _ in $(seq 50); do
        psql -q -h 127.0.0.1 -p "$pg_port" -U postgres -c "CREATE DATABASE bench" 2>/dev/null && break
        sleep 0.2
    done
    pg_db="postgresql://postgres@127.0.0.1:$pg_port/bench"
}

# as_db_user CMD...: runs CMD as "nobody" when run as root (PostgreSQL refuses root), else as is.
as_db_user() {
    if [[ $(id -u) -eq 0 ]]; then
        runuser -u nobody -- "$@"
    else
        "$@"
    fi
}

clk_tck=$(getconf CLK_TCK)

# cpu_ticks PID: user + system clock ticks of PID (all its threads) and of its children (nginx's
# workers, PostgreSQL's backends). Fields 14 and 15 of /proc/PID/stat, after the command's name.
cpu_ticks() {
    local total=0 p ticks
    for p in "$1" $(cat /proc/"$1"/task/*/children 2>/dev/null); do
        # A child that ended between the listing and the reading counts nothing.
        ticks=$(sed 's/^.*) //' "/proc/$p/stat" 2>/dev/null | awk '{print $12 + $13}')
        total=$((total + ${ticks:-0}))
    done
    echo "$total"
}
