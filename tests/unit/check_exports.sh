#!/usr/bin/env bash
# The plug-in exports exactly its three entry functions and its interface table.
set -euo pipefail
lib=$1
expected=$'CreatePlugin\nDisposePlugin\nGetAvailableInterfaces\ng_AvailableInterfaces'
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | grep -v '^$' | sort)
if [ "$actual" != "$expected" ]; then
  echo "unexpected dynamic symbols in $lib:"
  diff <(echo "$expected") <(echo "$actual") || true
  exit 1
fi
echo "exports of $(basename "$lib"): ok"
