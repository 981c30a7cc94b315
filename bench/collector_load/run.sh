#!/usr/bin/env bash
# The collector's load run, side by side: the same generator (collector_load, pinned to one
# core) posts the same reports to
#   nginx             the ceiling: answers 204 after reading each body, stores nothing
#                     (nginx.conf.in beside this script)
#   fixture           tools/feedback-server, the python test server (records every body)
#   collector-sqlite  pathweave-collector on a SQLite file (durable)
#   collector-pg      pathweave-collector on a PostgreSQL server started for the run
# each on loopback with the same certificate and key, every post on a new connection with a
# full handshake, from SOURCES loopback addresses as from that many clients. Every mix is
# run RUNS times, the targets interleaved within each round, and the table gives each
# target's medians and its rate as a multiple of nginx's. Then the memory run (all targets
# but the fixture): IDLE connections that posted once are held open, idle, and 64 posts of
# 16 MiB go at once on top of them; its table gives the server's resident memory with the
# idle connections open and its peak. Between the two, the slow-client round (the
# collector on SQLite only): feedback posts without and then with SLOW slowloris clients
# open, RUNS times in turn, and the p99 latency of each; and the nodes round: feedback posts
# to one collector node on PostgreSQL and then, in turn, to two nodes on the same database
# (connections to each in turn), with the backends' waits for locks sampled meanwhile, once
# with the nodes sharing the machine's cores and once with each node held to NODE_CPU of a
# core (a cgroup of its own), as nodes on machines of their own would be.
#
# Usage: run.sh [--build DIR] [--collector PROGRAM] [--runs N] [--duration SECONDS]
#               [--concurrency N] [--machines N] [--mixes "feedback fleet"]
#               [--sources N] [--idle N] [--no-memory] [--slow N] [--no-nodes] [--keep]
#   --build DIR          build directory with the generator (default: build-bench; the
#                        generator and cefdump are built there when missing)
#   --collector PROGRAM  the collector to measure (default: DIR/collector/pathweave-collector,
#                        built when the tree has it); without one the collector is skipped
#   --concurrency N      posts in flight (64: enough that each server, not the generator's
#                        wait for answers, sets the rate; with 16 the generator sat idle a
#                        quarter of the time waiting for the collector's durable commits)
#   --sources N          loopback source addresses of the posts (256)
#   --idle N             idle connections of the memory run (10000); --no-memory skips it
#   --slow N             slow clients of the slow-client round (5000); 0 skips it
#   --no-nodes           skips the nodes round
#   --node-cpu FRACTION  each node's share of a core in the nodes round's capped runs (0.25)
#   --keep               keep the run's temporary directory (logs, stores) and say where
# Servers run as an unprivileged user (nobody when started as root) from a temporary
# directory, on loopback ports; all are stopped when the script ends.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build="$root/build-bench"
collector=""
runs=5
duration=10
concurrency=64
machines=10000
mixes="feedback fleet"
sources=256
idle=10000
slow=5000
memory=1
nodes=1
node_cpu=0.25
keep=0
server_name=feedback.pathweave.example
# Idle connections of the memory run stay open this long on every target: opening 10,000
# of them, each with a handshake and a post, takes a minute or more on a busy small machine.
idle_timeout=300
# The key exchange groups, as nginx names them; OpenSSL's clients offer X25519 first.
groups="X25519:prime256v1"
pg_bin=/usr/lib/postgresql/15/bin
# The fixture runs as the unprivileged user, so with the system's interpreter (a user's
# own python3 may live where that user cannot read).
python=/usr/bin/python3
[ -x "$python" ] || python=$(command -v python3)

usage() { sed -n '2,40p' "$0" | sed 's/^# \{0,1\}//' >&2; exit 2; }
while [ $# -gt 0 ]; do
    case "$1" in
        --build) build=$2; shift 2 ;;
        --collector) collector=$2; shift 2 ;;
        --runs) runs=$2; shift 2 ;;
        --duration) duration=$2; shift 2 ;;
        --concurrency) concurrency=$2; shift 2 ;;
        --machines) machines=$2; shift 2 ;;
        --mixes) mixes=$2; shift 2 ;;
        --sources) sources=$2; shift 2 ;;
        --idle) idle=$2; shift 2 ;;
        --no-memory) memory=0; shift ;;
        --no-nodes) nodes=0; shift ;;
        --node-cpu) node_cpu=$2; shift 2 ;;
        --slow) slow=$2; shift 2 ;;
        --keep) keep=1; shift ;;
        *) usage ;;
    esac
done

# A share of a core that a CPU cgroup can be held to (at least a hundredth).
[[ "$node_cpu" =~ ^[0-9]*\.?[0-9]+$ ]] && awk -v f="$node_cpu" 'BEGIN { exit !(f >= 0.01) }' ||
    usage

source "$root/bench/common/run_support.sh"
# Every server and the generator hold thousands of connections: as many descriptors as
# allowed.
ulimit -n "$(ulimit -Hn)"

# --- the programs ---------------------------------------------------------------------
load="$build/bench/collector_load"
cefdump="$build/tools/cefdump/cefdump"
if [ ! -x "$load" ] || [ ! -x "$cefdump" ]; then
    if [ ! -f "$build/CMakeCache.txt" ]; then
        cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DPW_BUILD_BENCH=ON \
            -DPW_BUILD_TESTS=OFF -DPW_INSTALL_DIR="$build/root/opt/norvek/pathweave" \
            >"$build.configure.log" 2>&1 || die "configuring $build failed ($build.configure.log)"
    fi
    cmake --build "$build" -j2 --target collector_load cefdump >"$build/collector_load.log" 2>&1 ||
        die "building the generator failed ($build/collector_load.log)"
fi
if [ -z "$collector" ]; then
    if [ ! -x "$build/collector/pathweave-collector" ] &&
        cmake --build "$build" --target help 2>/dev/null | grep -q '\.\.\. pathweave-collector$'; then
        cmake --build "$build" -j2 --target pathweave-collector >"$build/collector.log" 2>&1 ||
            die "building pathweave-collector failed ($build/collector.log)"
    fi
    [ -x "$build/collector/pathweave-collector" ] && collector="$build/collector/pathweave-collector"
fi
[ -z "$collector" ] || [ -x "$collector" ] || die "$collector is not a program"
command -v nginx >/dev/null || die "nginx is not installed (scripts/setup installs nginx-light)"

# --- the run's directory, the unprivileged user, the servers' lifetime -----------------
work=$(mktemp -d /tmp/pw-load.XXXXXX)
chmod 755 "$work"
pids=()
cgroups=()  # made for the nodes round, removed at the end
declare -A port pid store  # of each target (and PostgreSQL): port, process, store directory
cleanup() {
    local child
    # The collectors first, PostgreSQL (fast shutdown) after its clients have gone.
    for child in "${pids[@]}"; do
        [ "$child" = "${pid[postgres]:-}" ] || kill "$child" 2>/dev/null || true
    done
    [ -z "${pid[postgres]:-}" ] || kill -INT "${pid[postgres]}" 2>/dev/null || true
    for child in "${pids[@]}"; do
        wait "$child" 2>/dev/null || true
    done
    for child in "${cgroups[@]}"; do
        rmdir "$child" 2>/dev/null || true
    done
    if [ "$keep" = 1 ]; then
        say "kept $work"
    else
        rm -rf "$work"
    fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

wait_port() {  # wait_port PORT PID NAME
    for _ in $(seq 300); do
        (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null && return 0
        kill -0 "$2" 2>/dev/null || die "$3 exited while starting (see its log in $work)"
        sleep 0.1
    done
    die "$3 did not listen on port $1 within 30 s"
}
bytes_in() { du -sb "$1" | cut -f1; }

# What a target keeps, in bytes. A database counts by its content rather than its files:
# a SQLite database's pages (those still in its write-ahead log included; the log file
# itself is reused, so its size says nothing) and PostgreSQL's database size (its WAL
# left out); anything else in the collector's state directory (dumps kept as files, for
# example) counts by its files.
stored_bytes() {  # stored_bytes TARGET
    case "$1" in
        collector-sqlite)
            local db="$work/collector-sqlite/state/collector.db" pages=0 rest
            # A file that SQLite cannot read counts by its size.
            [ ! -f "$db" ] || pages=$("${as_server[@]}" "$python" -c '
import sqlite3, sys
db = sqlite3.connect(sys.argv[1], timeout=30)
print(db.execute("pragma page_count").fetchone()[0] * db.execute("pragma page_size").fetchone()[0])
' "$db" 2>/dev/null) || pages=$(stat -c %s "$db")
            rest=$(du -sb --exclude='collector.db*' "$work/collector-sqlite/state" | cut -f1)
            echo $((pages + rest))
            ;;
        collector-pg)
            local size
            size=$("$pg_bin/psql" -h 127.0.0.1 -p "$pg_port" -U bench -d collector -Atc \
                "select pg_database_size(current_database())")
            echo $((size + $(bytes_in "$work/collector-pg/state")))
            ;;
        *) bytes_in "${store[$1]}" ;;
    esac
}

PW_TEST_SERVER_NAME=$server_name "$root/tools/feedback-server/make_certs.sh" "$work/certs" \
    >/dev/null 2>&1 || die "making the test certificates failed"
chmod 644 "$work/certs/server.key"
cert="$work/certs/server.pem"
key="$work/certs/server.key"

targets=()

start_nginx() {
    local dir="$work/nginx"
    mkdir -p "$dir/empty"
    port[nginx]=$(free_port)
    sed -e "s|@DIR@|$dir|g; s|@PORT@|${port[nginx]}|; s|@IDLE@|$idle_timeout|" \
        -e "s|@SERVER_NAME@|$server_name|; s|@CERT@|$cert|; s|@KEY@|$key|; s|@GROUPS@|$groups|" \
        "$here/nginx.conf.in" >"$dir/nginx.conf"
    give "$dir"
    "${as_server[@]}" nginx -p "$dir" -c "$dir/nginx.conf" -e "$dir/error.log" >"$dir/out.log" 2>&1 &
    pid[nginx]=$!
    pids+=("${pid[nginx]}")
    wait_port "${port[nginx]}" "${pid[nginx]}" nginx
    store[nginx]="$dir/body"
    targets+=(nginx)
}

start_fixture() {
    local dir="$work/fixture"
    mkdir -p "$dir/records"
    give "$dir"
    "${as_server[@]}" "$python" "$root/tools/feedback-server/feedback_server.py" --cert "$cert" \
        --key "$key" --record-dir "$dir/records" >"$dir/out.log" 2>&1 &
    pid[fixture]=$!
    pids+=("${pid[fixture]}")
    for _ in $(seq 300); do
        port[fixture]=$(awk '/^PORT /{print $2}' "$dir/out.log")
        [ -n "${port[fixture]}" ] && break
        kill -0 "${pid[fixture]}" 2>/dev/null || die "the fixture exited while starting"
        sleep 0.1
    done
    [ -n "${port[fixture]}" ] || die "the fixture did not start within 30 s"
    store[fixture]="$dir/records"
    targets+=(fixture)
}

pg_uri=""
pg_port=""
start_postgres() {  # sets pg_port and pg_uri
    local dir="$work/postgres"
    mkdir -p "$dir"
    give "$dir"
    pg_port=$(free_port)
    "${as_server[@]}" "$pg_bin/initdb" -D "$dir/data" -U bench --auth=trust -E UTF8 --no-locale \
        >"$dir/initdb.log" 2>&1 || die "initdb failed ($dir/initdb.log)"
    "${as_server[@]}" "$pg_bin/postgres" -D "$dir/data" -p "$pg_port" -k "$dir" \
        -c listen_addresses=127.0.0.1 -c max_connections=200 >"$dir/server.log" 2>&1 &
    pid[postgres]=$!
    pids+=("${pid[postgres]}")
    for _ in $(seq 300); do
        "$pg_bin/pg_isready" -q -h 127.0.0.1 -p "$pg_port" && break
        kill -0 "${pid[postgres]}" 2>/dev/null || die "PostgreSQL exited ($dir/server.log)"
        sleep 0.1
    done
    "$pg_bin/createdb" -h 127.0.0.1 -p "$pg_port" -U bench collector ||
        die "createdb failed"
    pg_uri="postgresql://bench@127.0.0.1:$pg_port/collector"
}

# A collector that does not become ready is left out of the run (and said so), so that the
# other targets are still measured. A spare node is started but is not one of the targets.
start_collector() {  # start_collector NAME DATABASE [spare]
    local name=$1 dir="$work/$1" answer=""
    mkdir -p "$dir/state"
    port[$name]=$(free_port)
    cat >"$dir/collector.conf" <<EOF
listen=127.0.0.1:${port[$name]}
cert_file=$cert
key_file=$key
database=$2
state_directory=$dir/state
dashboard_listen=127.0.0.1:$(free_port)
dashboard_token=off
log=file
log_file=$dir/collector.log
idle_timeout=$idle_timeout
EOF
    give "$dir"
    "${as_server[@]}" "$collector" --config "$dir/collector.conf" serve >"$dir/out.log" 2>&1 &
    pid[$name]=$!
    pids+=("${pid[$name]}")
    for _ in $(seq 300); do
        answer=$(curl -s -o /dev/null -w '%{http_code}' --cacert "$work/certs/ca.pem" \
            --resolve "$server_name:${port[$name]}:127.0.0.1" \
            "https://$server_name:${port[$name]}/readyz" || true)
        [ "$answer" = 200 ] && break
        kill -0 "${pid[$name]}" 2>/dev/null || break
        sleep 0.1
    done
    if [ "$answer" != 200 ]; then
        say "$name: skipped, not ready within 30 s (/readyz: ${answer:-no answer}); its log:"
        tail -n 5 "$dir/collector.log" "$dir/out.log" >&2 2>/dev/null || true
        kill "${pid[$name]}" 2>/dev/null || true
        return 0
    fi
    [ "${3:-}" = spare ] || targets+=("$name")
}

start_nginx
start_fixture
if [ -n "$collector" ]; then
    start_collector collector-sqlite "$work/collector-sqlite/state/collector.db"
    start_postgres
    start_collector collector-pg "$pg_uri"
    # The second node of the nodes round, on the same database.
    [ "$nodes" = 0 ] || start_collector collector-pg2 "$pg_uri" spare
else
    say "collector: skipped (no pathweave-collector program in this tree yet; give one with --collector)"
fi

# --- the runs --------------------------------------------------------------------------
# The bodies the fixture received are read back with cefdump: the generator's reports are
# valid reports, posted with the client's headers in the client's order. The first 50
# requests are checked, and the 10 largest (the crash reports among them).
check_fixture_records() {
    local dir=${store[fixture]} meta body checked=0 expected
    expected=$(printf '%s\n' "method POST" "path /cef/upload" "header Host: $server_name" \
        "header User-Agent: Pathweave" "header Accept: */*" \
        "header Content-Type: application/x-www-form-urlencoded")
    for meta in $(find "$dir" -name '*.meta' | sort | head -n 50) \
        $(find "$dir" -name '*.body' -printf '%s %p\n' | sort -rn | head -n 10 |
            sed 's/^[0-9]* //; s/body$/meta/'); do
        if [ "$(grep -E '^(method|path|header)' "$meta" | grep -v '^header Content-Length')" != \
            "$expected" ] ||
            ! grep -qx "header Content-Length: $(sed -n 's/^length //p' "$meta")" "$meta"; then
            die "the fixture received a request unlike a client's: $meta"
        fi
        body=${meta%.meta}.body
        "$cefdump" --wire "$body" >/dev/null || die "cefdump cannot read the posted body $body"
        checked=$((checked + 1))
    done
    say "fixture: $checked posted bodies read back with cefdump, headers as the client's"
}

results="$work/results.txt"
: >"$results"
echo "# $(nproc) cores, load average $(cut -d' ' -f1-3 /proc/loadavg) at the start;" \
    "generator on core 0, $concurrency posts in flight, $duration s a run, $runs rounds"
checked=0
mix_number=0
for mix in $mixes; do
    mix_number=$((mix_number + 1))
    for round in $(seq "$runs"); do
        # One seed a round: every target gets the same sequence of reports in that round,
        # and no collector is sent the same machine's period twice.
        seed=$((mix_number * 100 + round))
        for target in "${targets[@]}"; do
            before=$(stored_bytes "$target")
            line=$("$load" --target "127.0.0.1:${port[$target]}" --server-name "$server_name" \
                --ca-file "$work/certs/ca.pem" --concurrency "$concurrency" \
                --duration "$duration" --mix "$mix" --machines "$machines" \
                --seed "$seed" --cpu 0 --server-pid "${pid[$target]}" --source-addresses "$sources" \
                --label "$target" || true)
            [ -n "$line" ] || die "the generator gave no figures for $target"
            after=$(stored_bytes "$target")
            echo "$line stored_bytes=$((after - before))"
            echo "$line stored_bytes=$((after - before))" >>"$results"
            if [ "$target" = fixture ] && [ "$checked" = 0 ]; then
                check_fixture_records
                checked=1
            fi
        done
    done
done
echo "# load average $(cut -d' ' -f1-3 /proc/loadavg) at the end; disk: growth of each" \
    "store during its runs, per delivered report (databases by content, WAL left out)"

# The slow-client round: the same feedback posts to the collector on SQLite, without and
# then with the slowloris clients open, in turn.
slow_results="$work/slow.txt"
: >"$slow_results"
if [ "$slow" -gt 0 ] && [[ " ${targets[*]} " == *" collector-sqlite "* ]]; then
    echo "# slow clients: feedback posts to collector-sqlite without and with $slow slowloris" \
        "clients open (a header byte every 2 s, closed at the header deadline, opened again)"
    for round in $(seq "$runs"); do
        for open in 0 "$slow"; do
            line=$("$load" --target "127.0.0.1:${port[collector-sqlite]}" \
                --server-name "$server_name" --ca-file "$work/certs/ca.pem" \
                --concurrency "$concurrency" --duration "$duration" --mix feedback \
                --machines "$machines" --seed $((900 + round)) --cpu 0 \
                --server-pid "${pid[collector-sqlite]}" --source-addresses "$sources" \
                --slow "$open" --label "slow-$open" || true)
            [ -n "$line" ] || die "the generator gave no figures for the slow-client round"
            echo "$line"
            echo "$line" >>"$slow_results"
        done
    done
fi

# A node's own CPU cgroup (v1's cpu controller, or v2 with cpu enabled): cap_node NAME
# FRACTION holds it to that share of a core, "max" frees it. False without a writable
# cgroup hierarchy for the cpu controller (not root, or a container without one).
node_cgroup() {  # node_cgroup NAME PID
    local dir
    if [ -w /sys/fs/cgroup/cpu/cgroup.procs ] && [ -f /sys/fs/cgroup/cpu/cpu.cfs_quota_us ]; then
        dir=/sys/fs/cgroup/cpu/pw-load-$$-$1
    elif [ -w /sys/fs/cgroup/cgroup.procs ] &&
        grep -qw cpu /sys/fs/cgroup/cgroup.subtree_control 2>/dev/null; then
        dir=/sys/fs/cgroup/pw-load-$$-$1
    else
        return 1
    fi
    mkdir "$dir" 2>/dev/null && cgroups+=("$dir") && echo "$2" >"$dir/cgroup.procs"
}
cap_node() {  # cap_node NAME FRACTION|max
    local dir quota=-1
    for dir in "/sys/fs/cgroup/cpu/pw-load-$$-$1" "/sys/fs/cgroup/pw-load-$$-$1"; do
        [ -d "$dir" ] || continue
        [ "$2" = max ] || quota=$(awk -v f="$2" 'BEGIN { printf "%d", f * 100000 }')
        if [ -f "$dir/cpu.cfs_quota_us" ]; then
            echo 100000 >"$dir/cpu.cfs_period_us" && echo "$quota" >"$dir/cpu.cfs_quota_us"
        else
            echo "$([ "$quota" = -1 ] && echo max || echo "$quota") 100000" >"$dir/cpu.max"
        fi
        return
    done
}

# The nodes round: the same feedback posts to one node, then to two nodes on the same
# database, in turn. Nothing should make one node wait for the other: while the posts run,
# pg_stat_activity is sampled five times a second for a backend waiting on a lock (a row,
# a tuple, a transaction, an advisory lock), and the line counts the samples that saw one.
# The CPU figure is the nodes' and the PostgreSQL server's together.
nodes_results="$work/nodes.txt"
: >"$nodes_results"
if [ "$nodes" = 1 ] && [ -n "${pid[collector-pg2]:-}" ] &&
    [[ " ${targets[*]} " == *" collector-pg "* ]]; then
    variants=(shared)
    if node_cgroup pg "${pid[collector-pg]}" && node_cgroup pg2 "${pid[collector-pg2]}"; then
        variants+=("$node_cpu")
    else
        say "nodes: no CPU cgroup can be made here; the nodes are measured sharing the cores only"
    fi
    echo "# nodes: feedback posts to one collector node on PostgreSQL, then to two nodes on" \
        "the same database (connections to each in turn); the nodes sharing the cores, then" \
        "each held to $node_cpu of a core"
    nodes_run=0  # one seed a run: no node is sent a machine's period that another run sent
    for round in $(seq "$runs"); do
        for variant in "${variants[@]}"; do
            quota=$([ "$variant" = shared ] && echo max || echo "$variant")
            cap_node pg "$quota"
            cap_node pg2 "$quota"
            for count in 1 2; do
                addresses=(--target "127.0.0.1:${port[collector-pg]}")
                servers=(--server-pid "${pid[collector-pg]}" --server-pid "${pid[postgres]}")
                if [ "$count" = 2 ]; then
                    addresses+=(--target "127.0.0.1:${port[collector-pg2]}")
                    servers+=(--server-pid "${pid[collector-pg2]}")
                fi
                samples="$work/locks-$round-$variant-$count.txt"
                echo "select count(*) from pg_stat_activity where wait_event_type = 'Lock' \watch 0.2" |
                    "$pg_bin/psql" -h 127.0.0.1 -p "$pg_port" -U bench -d collector -At \
                        >"$samples" 2>/dev/null &
                sampler=$!
                line=$("$load" "${addresses[@]}" --server-name "$server_name" \
                    --ca-file "$work/certs/ca.pem" --concurrency "$concurrency" \
                    --duration "$duration" --mix feedback --machines "$machines" \
                    --seed $((800 + ++nodes_run)) --cpu 0 \
                    "${servers[@]}" --source-addresses "$sources" \
                    --label "nodes-$count-$variant" || true)
                kill "$sampler" 2>/dev/null || true
                wait "$sampler" 2>/dev/null || true
                [ -n "$line" ] || die "the generator gave no figures for the nodes round"
                line="$line lock_samples=$(grep -c '^[0-9]' "$samples" || true)"
                line="$line lock_waits=$(grep -c '^[1-9]' "$samples" || true)"
                echo "$line"
                echo "$line" >>"$nodes_results"
            done
        done
    done
    cap_node pg max
    cap_node pg2 max
fi

memory_results="$work/memory.txt"
: >"$memory_results"
if [ "$memory" = 1 ]; then
    echo "# memory: $idle idle connections held open, then 64 posts of 16 MiB at once on top" \
        "of them (the fixture, a thread per connection, is left out)"
    for target in "${targets[@]}"; do
        [ "$target" != fixture ] || continue
        line=$("$load" --target "127.0.0.1:${port[$target]}" --server-name "$server_name" \
            --ca-file "$work/certs/ca.pem" --idle "$idle" --mix largest --concurrency 64 \
            --count 64 --timeout 120 --machines "$machines" --seed 999 --cpu 0 \
            --server-pid "${pid[$target]}" --source-addresses "$sources" --label "$target" || true)
        [ -n "$line" ] || die "the generator gave no figures for $target"
        echo "$line"
        echo "$line" >>"$memory_results"
    done
fi

# --- the table -------------------------------------------------------------------------
python3 - "$results" "$memory_results" "$slow_results" "$nodes_results" "${targets[@]}" <<'EOF'
import statistics, sys

path, memory_path, slow_path, nodes_path = sys.argv[1:5]
targets = sys.argv[5:]
runs = {}
for line in open(path):
    fields = dict(item.split("=", 1) for item in line.split())
    runs.setdefault((fields["mix"], fields["label"]), []).append(fields)

def median(rows, key):
    values = [float(row[key]) for row in rows if row[key] != "-"]
    return statistics.median(values) if values else None

if runs:
    print("%-9s %-17s %9s %8s %8s %8s %12s %10s %12s %7s" % (
        "mix", "target", "reports/s", "x nginx", "p50 ms", "p99 ms", "cpu ms/rep", "peak MiB",
        "disk B/rep", "failed"))
for mix in dict.fromkeys(m for m, _ in runs):
    ceiling = median(runs.get((mix, "nginx"), []), "rate") if (mix, "nginx") in runs else None
    for target in targets:
        rows = runs.get((mix, target))
        if not rows:
            continue
        rate = median(rows, "rate")
        delivered = sum(int(row["delivered"]) for row in rows)
        stored = sum(int(row["stored_bytes"]) for row in rows)
        peak = max((float(row["server_peak_rss_mib"]) for row in rows
                    if row["server_peak_rss_mib"] != "-"), default=0.0)
        cpu = median(rows, "server_cpu_ms")
        print("%-9s %-17s %9.1f %8s %8.2f %8.2f %12s %10.1f %12.0f %7d" % (
            mix, target, rate, "%.2f" % (rate / ceiling) if ceiling else "-",
            median(rows, "p50_ms"), median(rows, "p99_ms"),
            "%.3f" % cpu if cpu is not None else "-", peak,
            stored / delivered if delivered else 0,
            sum(int(row["failed"]) for row in rows)))

slow = {}
for line in open(slow_path):
    fields = dict(item.split("=", 1) for item in line.split())
    slow.setdefault(fields["label"], []).append(fields)
if slow:
    print()
    print("%-27s %9s %8s %8s %10s %12s %7s" % (
        "collector-sqlite, feedback", "reports/s", "p50 ms", "p99 ms", "slow open",
        "slow reopened", "failed"))
    for label, rows in slow.items():
        print("%-27s %9.1f %8.2f %8.2f %10s %12s %7d" % (
            "no slow clients" if label == "slow-0" else label.split("-")[1] + " slow clients",
            median(rows, "rate"), median(rows, "p50_ms"), median(rows, "p99_ms"),
            rows[-1].get("slow_open", "-"), rows[-1].get("slow_reopened", "-"),
            sum(int(row["failed"]) for row in rows)))
    if len(slow) == 2:
        quiet, loaded = (median(rows, "p99_ms") for rows in slow.values())
        print("p99 with the slow clients: %.2fx the p99 without" % (loaded / quiet))

nodes = {}
for line in open(nodes_path):
    fields = dict(item.split("=", 1) for item in line.split())
    nodes.setdefault(fields["label"], []).append(fields)
if nodes:
    print()
    print("%-32s %9s %8s %8s %12s %14s %7s" % (
        "collector-pg, feedback", "reports/s", "p50 ms", "p99 ms", "cpu ms/rep",
        "lock waits", "failed"))
    variants = list(dict.fromkeys(label.split("-", 2)[2] for label in nodes))
    for variant in variants:
        for count in ("1", "2"):
            rows = nodes.get("nodes-%s-%s" % (count, variant), [])
            if not rows:
                continue
            print("%-32s %9.1f %8.2f %8.2f %12.3f %14s %7d" % (
                ("one node" if count == "1" else "two nodes") +
                (", sharing the cores" if variant == "shared" else ", %s core each" % variant),
                median(rows, "rate"), median(rows, "p50_ms"), median(rows, "p99_ms"),
                median(rows, "server_cpu_ms"),
                "%d of %d" % (sum(int(row["lock_waits"]) for row in rows),
                              sum(int(row["lock_samples"]) for row in rows)),
                sum(int(row["failed"]) for row in rows)))
    for variant in variants:
        one, two = (nodes.get("nodes-%s-%s" % (count, variant)) for count in ("1", "2"))
        if one and two:
            print("two nodes, %s: %.2fx the rate of one" % (
                "sharing the cores" if variant == "shared" else "%s core each" % variant,
                median(two, "rate") / median(one, "rate")))
    print("(cpu: the nodes' and the PostgreSQL server's; lock waits: samples of"
          " pg_stat_activity that saw a backend waiting on a lock)")

memory = [dict(item.split("=", 1) for item in line.split()) for line in open(memory_path)]
if memory:
    print()
    print("%-17s %10s %10s %14s %14s %12s %7s" % (
        "target", "idle open", "closed", "idle RSS MiB", "peak RSS MiB", "16 MiB posts",
        "failed"))
    for row in memory:
        print("%-17s %10s %10s %14s %14s %12s %7s" % (
            row["label"], row["idle_open"], row["idle_closed_by_server"],
            row.get("idle_rss_mib", "-"), row["server_peak_rss_mib"], row["delivered"],
            int(row["failed"]) + int(row["idle_failed"])))
EOF
