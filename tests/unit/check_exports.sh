#!/usr/bin/env bash
# Exported symbols: the plug-in exports exactly its three entry functions and its interface
# table; the host framework has a versioned soname and exports its platform interface only
# (no test hooks, no internal helpers).
set -euo pipefail
plugin=$1 host=$2
expected=$'CreatePlugin\nDisposePlugin\nGetAvailableInterfaces\ng_AvailableInterfaces'
actual=$(nm -D --defined-only "$plugin" | awk '{print $3}' | grep -v '^$' | sort)
if [ "$actual" != "$expected" ]; then
  echo "unexpected dynamic symbols in $plugin:"
  diff <(echo "$expected") <(echo "$actual") || true
  exit 1
fi
readelf -d "$host" | grep -q 'SONAME.*\[libpwhost\.so\.[0-9]\+\]' || { echo "$host: no versioned soname"; exit 1; }
stray=$(nm -DC --defined-only "$host" | awk '{$1=$2=""; print}' | grep -E '^ *(pwtest|pwhost::(UniqueFd|Errno|Curl)|std::)' || true)
[ -z "$stray" ] || { echo "$host exports more than its interface:"; echo "$stray" | head; exit 1; }
echo "exports: ok"
