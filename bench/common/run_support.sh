# Shell helpers shared by the benchmark drivers (sourced, not run). The driver sets `work`
# (its scratch directory) before it calls die or starts servers.

say() { echo "run.sh: $*" >&2; }
die() { say "$*"; exit 1; }

# The servers under test run unprivileged. A command prefix rather than a function: a
# background command then has the server's own pid as $!, which the drivers stop and
# measure. `give` hands the files a server needs to that user.
if [ "$(id -u)" = 0 ]; then
    as_server=(setpriv --reuid=65534 --regid=65534 --clear-groups --)
    give() { chown -R 65534:65534 "$@"; }
else
    as_server=()
    give() { :; }
fi

free_port() {
    python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}
