#!/usr/bin/env bash
# The shipping checks: builds the Debian packages for both architectures (scripts/package,
# lintian without errors) in a copy of the working tree without build/, as a fresh clone
# has it, with a feedback server URL of its own; checks their contents, runs the installed amd64 host from an
# extracted root against the local HTTPS server, and builds a consumer host against an
# installation of the framework into a scratch prefix (CMake package and pkg-config).
#   tests/package/check_packages.sh NATIVE_BUILD_DIR
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
native=${1:?usage: check_packages.sh NATIVE_BUILD_DIR}
scratch=$(mktemp -d /tmp/pw-package.XXXXXX)

# The tracked and new files of the working tree, without what the build or the tests made.
# The copy lies under build/ at the depth of the tree itself, so that a compiler cache with
# paths relative to the tree (scripts/test) serves both.
clone="$root/build/package-check"
rm -rf "$clone"
mkdir -p "$clone"
trap 'rm -rf "$scratch" "$clone"' EXIT
git -C "$root" ls-files -z --cached --others --exclude-standard |
  (cd "$root" && xargs -0 cp --parents -t "$clone" 2>/dev/null || true)
[ ! -e "$clone/build" ] || { echo "the copy of the working tree holds build/"; exit 1; }
url_path=/cef/upload-from-package-check
PW_SKIP_SETUP=1 bash "$clone/scripts/package" --url "https://feedback.pathweave.example$url_path" \
  amd64 i386 >"$scratch/package.log" 2>&1 || { cat "$scratch/package.log"; exit 1; }
version=$(grep -o 'PW_PRODUCT_VERSION:STRING=.*' "$native/CMakeCache.txt" | cut -d= -f2)

# package:arch multiarch: the files each package must hold.
for arch in amd64:x86_64 i386:i386; do
  a=${arch%:*} triplet=${arch#*:}-linux-gnu
  expect=(
    "pathweave-feedback ./opt/norvek/pathweave/lib/libPhoneHome.so ./usr/bin/pathweave-host ./etc/pathweave/host.conf ./usr/lib/systemd/system/pathweave-host.service ./usr/share/man/man8/pathweave-host.8.gz"
    "libpwhost1 ./usr/lib/$triplet/libpwhost.so.1"
    "libpwhost-dev ./usr/include/pathweave/PluginInterfaces.h ./usr/lib/$triplet/cmake/PathweaveHost/PathweaveHostConfig.cmake ./usr/lib/$triplet/pkgconfig/pathweave-host.pc"
    "pathweave-tools ./usr/bin/cefdump ./usr/share/man/man1/cefdump.1.gz"
  )
  for line in "${expect[@]}"; do
    read -r package files <<<"$line"
    deb="$clone/out/${package}_${version}_$a.deb"
    listing=$(dpkg-deb -c "$deb" | awk '{print $6}')
    for file in $files; do
      grep -qxF "$file" <<<"$listing" || { echo "$deb lacks $file"; exit 1; }
    done
    ! grep -q HostTestControl <<<"$listing" || { echo "$deb ships test controls"; exit 1; }
    [ "$a" = amd64 ] && dpkg-deb -x "$deb" "$scratch/root"
  done
done
collector_deb="$clone/out/pathweave-collector_${version}_amd64.deb"
listing=$(dpkg-deb -c "$collector_deb" | awk '{print $6}')
for file in ./usr/bin/pathweave-collector ./etc/pathweave/collector.conf \
  ./usr/lib/systemd/system/pathweave-collector.service ./usr/lib/sysusers.d/pathweave-collector.conf \
  ./usr/share/man/man8/pathweave-collector.8.gz ./usr/share/pathweave-collector/web/index.html; do
  grep -qxF "$file" <<<"$listing" || { echo "$collector_deb lacks $file"; exit 1; }
done
! dpkg-deb -c "$collector_deb" | grep -qi 'chart[^/]*\.js$' || { echo "$collector_deb copies a chart library"; exit 1; }
dpkg-deb -f "$collector_deb" Depends | grep -q 'libjs-chart.js' ||
  { echo "$collector_deb does not depend on libjs-chart.js"; exit 1; }
dpkg-deb -x "$collector_deb" "$scratch/root"
echo "packages: contents as expected"

# The installed host and plug-in, run once from the extracted root. The plug-in keeps its
# files under /opt/norvek/pathweave, so that run gets a private /opt (mount namespace).
unshare --mount --propagation private bash -c '
  set -e
  mount -t tmpfs tmpfs /opt
  cp -a "$1/root/opt/." /opt/
  PW_E2E_HOST="$1/root/usr/bin/pathweave-host" \
  PW_E2E_PLUGIN=/opt/norvek/pathweave/lib/libPhoneHome.so \
  PW_E2E_INSTALL_DIR=/opt/norvek/pathweave PW_E2E_WORK="$1/e2e" \
  LD_LIBRARY_PATH="$1/root/usr/lib/x86_64-linux-gnu" \
    python3 "$2/tests/e2e/e2e_test.py" EndToEnd.test_module_data_is_collected_posted_and_deleted_privately
' _ "$scratch" "$root"
grep -qx "path $url_path" "$scratch"/e2e/received-server/*.meta ||
  { echo "the installed plug-in did not post to the URL given to scripts/package"; exit 1; }
echo "packages: the installed host delivered a report to the URL it was packaged with"

# The collector runs as its own user, which must reach the extracted root and its files.
chmod 0711 "$scratch"
bash "$root/tests/package/check_collector_service.sh" "$scratch/root" "$scratch/service"
echo "packages: the collector's unit verifies and its ExecStart serves as the service user"

cmake --install "$native" --prefix "$scratch/prefix" >/dev/null
{ cmake -S "$root/tests/package/consumer" -B "$scratch/consumer" -DCMAKE_PREFIX_PATH="$scratch/prefix" &&
  PKG_CONFIG_PATH="$scratch/prefix/lib/pkgconfig" cmake --build "$scratch/consumer"; } \
  >"$scratch/consumer.log" 2>&1 || { cat "$scratch/consumer.log"; exit 1; }
LD_LIBRARY_PATH="$scratch/prefix/lib" "$scratch/consumer/consumer_cmake"
LD_LIBRARY_PATH="$scratch/prefix/lib" "$scratch/consumer/consumer_pkgconfig"
