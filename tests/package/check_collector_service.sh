#!/usr/bin/env bash
# The collector's unit from an extracted package root: systemd-analyze verify accepts it,
# and its ExecStart, run as the service's own user with the unit's umask, serves: ready,
# a report stored, the dashboard's page with the chart library of its Debian package, the
# state private to that user, and a drain on SIGTERM.
#   tests/package/check_collector_service.sh ROOT WORK
set -euo pipefail
root=${1:?usage: check_collector_service.sh ROOT WORK}
work=${2:?usage: check_collector_service.sh ROOT WORK}
here=$(cd "$(dirname "$0")/../.." && pwd)
unit="$root/usr/lib/systemd/system/pathweave-collector.service"
user=pathweave-collector

# Verified against this machine's systemd, where the program is not installed: that one
# complaint is expected (the program's place in the package is checked instead); any other
# line, an unknown key or a bad value among them, fails.
[ -x "$root/usr/bin/pathweave-collector" ] || { echo "the package lacks its program"; exit 1; }
systemd-analyze verify --man=no "$unit" >"$work.verify.log" 2>&1 || true
if grep -v -F 'Command /usr/bin/pathweave-collector is not executable: No such file or directory' \
  "$work.verify.log" | grep -q .; then
  cat "$work.verify.log"; exit 1
fi
for key in User=$user UMask=0077 StateDirectory=pathweave-collector Restart=on-failure \
  AmbientCapabilities=CAP_NET_BIND_SERVICE; do
  grep -qx "$key" "$unit" || { echo "the unit lacks $key"; exit 1; }
done

getent passwd "$user" >/dev/null || systemd-sysusers --root=/ "$root/usr/lib/sysusers.d/pathweave-collector.conf"
mkdir -p "$work/state"
chown "$user:$user" "$work/state" && chmod 0700 "$work/state" "$work"
chown "$user" "$work"
bash "$here/tools/feedback-server/make_certs.sh" "$work/certs" >/dev/null
chmod -R a+rX "$work/certs"
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
dash=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
cat >"$work/collector.conf" <<CONF
listen=127.0.0.1:$port
cert_file=$work/certs/server.pem
key_file=$work/certs/server.key
database=$work/state/collector.db
state_directory=$work/state
dashboard_listen=127.0.0.1:$dash
log=file
log_file=$work/state/collector.log
CONF
chmod a+r "$work/collector.conf"

# The unit's command line, with the extracted program and this settings file.
exec_start=$(sed -n 's/^ExecStart=//p' "$unit")
read -r -a command <<<"$exec_start"
command[0]="$root${command[0]}"
for i in "${!command[@]}"; do
  [ "${command[$i]}" != /etc/pathweave/collector.conf ] || command[$i]="$work/collector.conf"
done
(umask 0077; exec setpriv --reuid="$user" --regid="$user" --init-groups \
  env LD_LIBRARY_PATH="$root/usr/lib/x86_64-linux-gnu" "${command[@]}") &
pid=$!
trap 'kill $pid 2>/dev/null || true' EXIT
for _ in $(seq 300); do
  curl -sf --cacert "$work/certs/ca.pem" --resolve "feedback.pathweave.example:$port:127.0.0.1" \
    "https://feedback.pathweave.example:$port/readyz" >/dev/null && break
  sleep 0.1
done
report='li7e40:f7767a46386a76c454df13f192200202c13d6887i3eli1795474062ei1795474662ed10:CustomerId7:package9:MachineId40:f7767a46386a76c454df13f192200202c13d6887'
report+='9:OSDetailsd14:OSBuildVersioni1e8:OSLocale7:C.UTF-814:OSMajorVersioni6e14:OSMinorVersioni1e6:OSName5:Linux6:OSType5:Linux16:OSVersionDetails5:6.1.0e'
report+='9:PWVersion9:5.1.0012322:PhoneHomeFormatVersion3:1.022:QualityImprovementDatad10:ModuleDatad9:VpnModuled8:connectsi3eeeeeee'
status=$(curl -s -o /dev/null -w '%{http_code}' --cacert "$work/certs/ca.pem" \
  --resolve "feedback.pathweave.example:$port:127.0.0.1" -H 'Content-Type: application/x-www-form-urlencoded' \
  --data-binary "data=$report" "https://feedback.pathweave.example:$port/cef/upload")
[ "$status" = 200 ] || { echo "the packaged collector answered $status to a report"; cat "$work/state/collector.log"; exit 1; }
token=$(cat "$work/state/dashboard-token")
for path in / /vendor/chart.js/chart.esm.js; do
  curl -sf -o /dev/null -H "Authorization: Bearer $token" "http://127.0.0.1:$dash$path" ||
    { echo "the packaged collector's dashboard does not serve $path"; exit 1; }
done
kill -TERM $pid
wait $pid || { echo "the packaged collector did not drain on SIGTERM"; exit 1; }
trap - EXIT
for file in "$work/state/collector.db" "$work/state/dashboard-token"; do
  [ "$(stat -c '%U %a' "$file")" = "$user 600" ] || { echo "$file is $(stat -c '%U %a' "$file")"; exit 1; }
done
