#!/usr/bin/env bash
# The collector's read speeds on stores already built: the JSON API's latency matrix and
# the dashboard pages' load times (read_bench.py beside this script), one table per store.
#
# Usage: run.sh [--collector PROGRAM] [--sqlite FILE] [--pg URI] [--pgdata DIR]
#               [-- READ_BENCH_OPTIONS...]
#   --sqlite FILE    a SQLite store
#   --pg URI         a postgresql:// URI of a running server's store
#   --pgdata DIR     a PostgreSQL data directory holding the store in database "collector"
#                    (user "bench"): started here on a free loopback port, as an
#                    unprivileged user, vacuumed and analysed, and stopped when the run
#                    ends (point it at a copy: the collector brings the schema up to date)
#   --collector      the collector to serve the stores (default: build/native's)
#   after --, options for read_bench.py (--cursors N, --loads N, --no-pages, --no-api)
# Opening a store written by an older collector brings its schema up to date first.
# Build a store with make_store.py (a simulated fleet, loaded with `import`).
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
collector="$root/build/native/collector/pathweave-collector"
pg_bin=/usr/lib/postgresql/15/bin
stores=()
pgdata=""
while [ $# -gt 0 ]; do
    case "$1" in
        --collector) collector=$2; shift 2 ;;
        --sqlite) stores+=("$2"); shift 2 ;;
        --pg) stores+=("$2"); shift 2 ;;
        --pgdata) pgdata=$2; shift 2 ;;
        --) shift; break ;;
        *) sed -n '2,17p' "$0" | sed 's/^# \{0,1\}//' >&2; exit 2 ;;
    esac
done
[ -x "$collector" ] || { echo "run.sh: no collector at $collector" >&2; exit 1; }

pg_pid=""
cleanup() {
    if [ -n "$pg_pid" ]; then
        kill -INT "$pg_pid" 2>/dev/null || true
        wait "$pg_pid" 2>/dev/null || true
    fi
}
trap cleanup EXIT

if [ -n "$pgdata" ]; then
    port=$(/usr/bin/python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
    as_server=()
    [ "$(id -u)" = 0 ] && as_server=(setpriv --reuid=65534 --regid=65534 --clear-groups --)
    socket_dir=$(mktemp -d)
    chmod 0777 "$socket_dir"
    "${as_server[@]}" "$pg_bin/postgres" -D "$pgdata" -p "$port" -k "$socket_dir" \
        -c listen_addresses=127.0.0.1 >"$socket_dir/server.log" 2>&1 &
    pg_pid=$!
    for _ in $(seq 600); do
        "$pg_bin/pg_isready" -q -h 127.0.0.1 -p "$port" && break
        kill -0 "$pg_pid" 2>/dev/null || { cat "$socket_dir/server.log" >&2; exit 1; }
        sleep 0.1
    done
    # Planner statistics and the visibility map (index-only scans) as a bulk load leaves
    # them wanting: what autovacuum would do in its own time.
    "$pg_bin/psql" -q -h 127.0.0.1 -p "$port" -U bench -d collector -c "VACUUM ANALYZE" ||
        { echo "run.sh: VACUUM ANALYZE failed" >&2; exit 1; }
    stores+=("postgresql://bench@127.0.0.1:$port/collector")
fi
[ ${#stores[@]} -gt 0 ] || { echo "run.sh: name a store (--sqlite, --pg or --pgdata)" >&2; exit 2; }

echo "load average before the run: $(cut -d' ' -f1-3 /proc/loadavg)"
/usr/bin/python3 "$here/read_bench.py" --collector "$collector" "${stores[@]}" "$@"
status=$?
echo "load average after the run: $(cut -d' ' -f1-3 /proc/loadavg)"
exit $status
