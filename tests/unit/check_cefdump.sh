#!/usr/bin/env bash
# cefdump prints a bencode file as JSON (byte strings that are not UTF-8 as base64) and
# answers missing, invalid and oversized files with distinct non-zero exit codes.
# Usage: check_cefdump.sh CEFDUMP [EMULATOR...]
set -uo pipefail
tool=$1
shift
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

fail() { echo "check_cefdump: $*"; exit 1; }

printf 'd1:ai-7e1:bl3:xyz2:\xff\xfeee' >"$dir/ok.cef"
printf 'd1:ai1e' >"$dir/truncated.cef"
head -c 10485761 /dev/zero >"$dir/large.cef"

out=$("$@" "$tool" "$dir/ok.cef") || fail "valid file refused"
compact=$(tr -d ' \n' <<<"$out")
[ "$compact" = '{"a":-7,"b":["xyz",{"base64":"//4="}]}' ] || fail "unexpected JSON: $compact"

for case in "missing.cef 2" "truncated.cef 5" "large.cef 4"; do

  name=${case% *}
  want=${case#* }
  "${@}" "$tool" "$dir/$name" >/dev/null 2>"$dir/err"
  got=$?
  [ "$got" = "$want" ] || fail "$name: exit $got, expected $want"
  [ -s "$dir/err" ] || fail "$name: no message"
done
[ ! -e "$dir/missing.cef" ] || fail "a missing file was created"

# Nesting as deep as the size limit allows (a million levels under emulation) is printed.
depth=$([ $# -gt 0 ] && echo 1000000 || echo 5000000)
{ head -c $depth /dev/zero | tr '\0' l; head -c $depth /dev/zero | tr '\0' e; } >"$dir/deep.cef"
out=$("$@" "$tool" --compact "$dir/deep.cef" | tr -d '\n') || fail "deep nesting refused"
[ "$out" = "$(head -c $((depth - 1)) /dev/zero | tr '\0' '[')[]$(head -c $((depth - 1)) /dev/zero | tr '\0' ']')" ] ||
  fail "deep nesting printed wrongly"
echo "cefdump: ok"
