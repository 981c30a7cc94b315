#!/usr/bin/env bash
# The collector's store at fleet size: builds a store of a simulated fleet's reports (by
# default 1,000,000: about 95% feedback of about 600 bytes, 4% crash reports with a 64 KiB
# dump, 1% threat reports, from 100,000 machines, received over 365 days) with one `import`, on
# SQLite and on PostgreSQL, then reads it all back with `export`, and prints a table: the
# import's rate, the export's time, the store's size.
#
# Usage: run.sh [--build DIR] [--collector PROGRAM] [--reports N] [--machines N] [--days N]
#               [--backends "sqlite postgres"] [--keep DIR] [--no-export]
#   --build DIR          build directory with the fixture program (default: build-bench;
#                        built there when missing)
#   --collector PROGRAM  the collector (default: build/native/collector/pathweave-collector)
#   --keep DIR           build in DIR and leave everything there: DIR/fixture (the report
#                        files, reused by later runs with the same sizes), DIR/sqlite/
#                        collector.db, DIR/postgres/data (a PostgreSQL data directory; its
#                        README.txt says how to start it). A store already in DIR is built
#                        again from scratch.
#   --no-export          import only
# Without --keep the run's directory is temporary and removed at the end. PostgreSQL runs as
# an unprivileged user (nobody when started as root), on a loopback port, stopped when the
# script ends.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build="$root/build-bench"
collector="$root/build/native/collector/pathweave-collector"
reports=1000000
machines=100000
days=365
backends="sqlite postgres"
keep=""
export_too=1
pg_bin=/usr/lib/postgresql/15/bin

usage() { sed -n '2,21p' "$0" | sed 's/^# \{0,1\}//' >&2; exit 2; }
while [ $# -gt 0 ]; do
    case "$1" in
        --build) build=$2; shift 2 ;;
        --collector) collector=$2; shift 2 ;;
        --reports) reports=$2; shift 2 ;;
        --machines) machines=$2; shift 2 ;;
        --days) days=$2; shift 2 ;;
        --backends) backends=$2; shift 2 ;;
        --keep) keep=$2; shift 2 ;;
        --no-export) export_too=0; shift ;;
        *) usage ;;
    esac
done

source "$root/bench/common/run_support.sh"

[ -x "$collector" ] || die "$collector is not a program (build pathweave-collector, or give --collector)"
fixture_program="$build/bench/collector_store_fixture"
if [ ! -x "$fixture_program" ]; then
    if [ ! -f "$build/CMakeCache.txt" ]; then
        cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DPW_BUILD_BENCH=ON \
            -DPW_BUILD_TESTS=OFF -DPW_INSTALL_DIR="$build/root/opt/norvek/pathweave" \
            >"$build.configure.log" 2>&1 || die "configuring $build failed ($build.configure.log)"
    fi
    cmake --build "$build" -j2 --target collector_store_fixture >"$build/collector_store.log" 2>&1 ||
        die "building the fixture program failed ($build/collector_store.log)"
fi

if [ -n "$keep" ]; then
    mkdir -p "$keep"
    work=$(cd "$keep" && pwd)
else
    work=$(mktemp -d /tmp/pw-store.XXXXXX)
fi
chmod 755 "$work"
pg_pid=""
cleanup() {
    if [ -n "$pg_pid" ]; then
        kill -INT "$pg_pid" 2>/dev/null || true
        wait "$pg_pid" 2>/dev/null || true
    fi
    if [ -z "$keep" ]; then
        rm -rf "$work"
    else
        say "kept $work"
    fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

seconds_since() { echo "$(date +%s.%N) - $1" | bc; }
# CPU ticks of this shell's finished children (the imports), and of the PostgreSQL server:
# the postmaster, its finished children (a connection's backend ends with its import) and
# those still running (writer, checkpointer).
client_ticks() { awk '{ print $16 + $17 }' /proc/$$/stat; }
server_ticks() {
    [ -n "$pg_pid" ] || { echo 0; return; }
    local total child
    total=$(awk '{ print $14 + $15 + $16 + $17 }' "/proc/$pg_pid/stat")
    for child in $(pgrep -P "$pg_pid"); do
        total=$((total + $(awk '{ print $14 + $15 }' "/proc/$child/stat" 2>/dev/null || echo 0)))
    done
    echo "$total"
}

# --- the fixture: one directory per day, made once per size ---------------------------------
fixture="$work/fixture"
wanted="reports=$reports machines=$machines days=$days"
if [ "$(cat "$fixture/SIZE" 2>/dev/null)" != "$wanted" ]; then
    rm -rf "$fixture"
    say "writing $reports reports to $fixture"
    start=$(date +%s.%N)
    "$fixture_program" --out "$fixture" --reports "$reports" --machines "$machines" \
        --days "$days" >"$work/fixture.txt" || die "the fixture program failed"
    echo "$wanted" >"$fixture/SIZE"
    say "fixture written in $(seconds_since "$start") s: $(cat "$work/fixture.txt")"
fi
# Readable by the unprivileged user (once: a million files take a while).
[ "$(id -u)" != 0 ] || [ "$(stat -c %u "$fixture")" = 65534 ] || give "$fixture"

# --- PostgreSQL -------------------------------------------------------------------------------
pg_port=""
start_postgres() {
    local dir="$work/postgres"
    rm -rf "$dir"
    mkdir -p "$dir"
    give "$dir"
    pg_port=$(free_port)
    "${as_server[@]}" "$pg_bin/initdb" -D "$dir/data" -U bench --auth=trust -E UTF8 --no-locale \
        >"$dir/initdb.log" 2>&1 || die "initdb failed ($dir/initdb.log)"
    # A bulk load writes gigabytes: checkpoints spaced by size rather than every gigabyte.
    # The server's compression is left at its default (pglz): the collector asks for lz4
    # on the columns that go out of line itself.
    cat >>"$dir/data/postgresql.conf" <<EOF
listen_addresses = '127.0.0.1'
unix_socket_directories = '$dir'
max_wal_size = 8GB
shared_buffers = 512MB
EOF
    "${as_server[@]}" "$pg_bin/postgres" -D "$dir/data" -p "$pg_port" >"$dir/server.log" 2>&1 &
    pg_pid=$!
    for _ in $(seq 300); do
        "$pg_bin/pg_isready" -q -h 127.0.0.1 -p "$pg_port" && break
        kill -0 "$pg_pid" 2>/dev/null || die "PostgreSQL exited ($dir/server.log)"
        sleep 0.1
    done
    "$pg_bin/createdb" -h 127.0.0.1 -p "$pg_port" -U bench collector || die "createdb failed"
    cat >"$dir/README.txt" <<EOF
A PostgreSQL 15 data directory holding a collector store of $reports reports
($wanted), built by bench/collector_store/run.sh. Start it (as an unprivileged user;
as root through setpriv) on a free loopback port, then point the collector at it:

  setpriv --reuid=65534 --regid=65534 --clear-groups -- \\
      $pg_bin/postgres -D $dir/data -p PORT &
  pathweave-collector ... database=postgresql://bench@127.0.0.1:PORT/collector

Stop it with kill -INT on the server's pid (a fast shutdown).
EOF
}

# --- one back end: import day by day, then export ---------------------------------------------
declare -A import_s export_s stored export_bytes count client_us server_us
run_backend() {  # run_backend NAME DATABASE
    local name=$1 database=$2 dir="$work/$1" start day total=0 lines
    mkdir -p "$dir"
    cat >"$dir/collector.conf" <<EOF
database=$database
state_directory=$dir
log=file
log_file=$dir/collector.log
EOF
    give "$dir"
    say "$name: importing"
    local client0 server0 hz
    client0=$(client_ticks)
    server0=$(server_ticks)
    start=$(date +%s.%N)
    # One run for every day, each day's directory at noon of that day.
    local args=()
    for day in $(ls "$fixture" | grep -E '^[0-9]+$' | sort -n); do
        args+=(--received $((day * 86400 + 43200)) "$fixture/$day")
    done
    "${as_server[@]}" "$collector" --config "$dir/collector.conf" import "${args[@]}" \
        >>"$dir/import.log" || die "$name: import failed ($dir/import.log, $dir/collector.log)"
    import_s[$name]=$(seconds_since "$start")
    count[$name]=$(awk '/^imported/ { n += $2 } END { print n + 0 }' "$dir/import.log")
    sleep 1  # a backend's time reaches the postmaster once it has exited
    hz=$(getconf CLK_TCK)
    client_us[$name]=$(( ($(client_ticks) - client0) * 1000000 / hz / (count[$name] + 1) ))
    server_us[$name]=$(( ($(server_ticks) - server0) * 1000000 / hz / (count[$name] + 1) ))
    if [ "$export_too" = 1 ]; then
        say "$name: exporting"
        start=$(date +%s.%N)
        lines=$("${as_server[@]}" "$collector" --config "$dir/collector.conf" export |
            tee >(wc -c >"$dir/export.bytes") | wc -l)
        export_s[$name]=$(seconds_since "$start")
        sleep 0.2
        export_bytes[$name]=$(cat "$dir/export.bytes")
        [ "$lines" = "${count[$name]}" ] ||
            say "$name: export wrote $lines lines for ${count[$name]} reports imported"
    fi
}

for backend in $backends; do
    case "$backend" in
        sqlite)
            rm -rf "$work/sqlite"
            run_backend sqlite "$work/sqlite/collector.db"
            stored[sqlite]=$(du -sb "$work/sqlite" | cut -f1)
            ;;
        postgres)
            rm -rf "$work/pg"
            start_postgres
            run_backend pg "postgresql://bench@127.0.0.1:$pg_port/collector"
            stored[pg]=$("$pg_bin/psql" -h 127.0.0.1 -p "$pg_port" -U bench -d collector -Atc \
                "select pg_database_size(current_database())")
            ;;
        *) die "unknown back end $backend (sqlite, postgres)" ;;
    esac
done

# --- the table --------------------------------------------------------------------------------
echo
echo "collector store: $wanted; $(nproc) cores, load average $(cut -d' ' -f1-3 /proc/loadavg)"
printf '%-8s %10s %10s %12s %10s %12s %10s %14s\n' store reports import_s reports/s export_s \
    export_MB store_MB import_cpu_us
for name in sqlite pg; do
    [ -n "${import_s[$name]:-}" ] || continue
    printf '%-8s %10s %10.1f %12.0f %10s %12s %10.0f %14s\n' "$name" "${count[$name]}" \
        "${import_s[$name]}" "$(echo "${count[$name]} / ${import_s[$name]}" | bc -l)" \
        "$(printf '%.1f' "${export_s[$name]:-0}")" \
        "$(( ${export_bytes[$name]:-0} / 1000000 ))" "$(echo "${stored[$name]} / 1000000" | bc -l)" \
        "${client_us[$name]}+${server_us[$name]}"
done
echo "import_cpu_us: CPU per imported report in microseconds, the import processes' and the"
echo "PostgreSQL server's (0 for SQLite); unlike reports/s, it depends little on the load."
