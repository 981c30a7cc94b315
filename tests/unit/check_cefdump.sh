#!/usr/bin/env bash
# cefdump prints a bencode file or standard input as JSON (byte strings that are not UTF-8
# as base64), reads a body as posted with --wire, names where invalid input goes wrong,
# warns about ignored trailing bytes, and answers missing, invalid and oversized input
# with distinct non-zero exit codes.
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

for case in "missing.cef 1" "truncated.cef 5" "large.cef 4"; do
  name=${case% *}
  want=${case#* }
  "${@}" "$tool" "$dir/$name" >/dev/null 2>"$dir/err"
  got=$?
  [ "$got" = "$want" ] || fail "$name: exit $got, expected $want"
  [ -s "$dir/err" ] || fail "$name: no message"
done
[ ! -e "$dir/missing.cef" ] || fail "a missing file was created"

# name | input | arguments | expected stdout | expected stderr (a part of it)
while IFS='|' read -r name input args want_out want_err; do
  got_out=$(printf '%s' "$input" | "$@" "$tool" --compact $args - 2>"$dir/err" | tr -d '\n')
  [ "$got_out" = "$want_out" ] || fail "$name: printed '$got_out'"
  if [ -z "$want_err" ]; then [ ! -s "$dir/err" ]; else grep -qF -- "$want_err" "$dir/err"; fi ||
    fail "$name: stderr '$(cat "$dir/err")'"
done <<'ROWS'
stdin|d1:ai1ee||{"a":1}|
wire body|data=li2ee|--wire|[2]|
not a body|li2ee|--wire||does not start with "data="
invalid byte|li1exee|||the first invalid byte is at offset 4
invalid value|d1:aX1:be|||the first invalid byte is at offset 4
invalid item|li1ei2eZi3ee|||the first invalid byte is at offset 7
trailing bytes|li1eei2e||[1]|warning: 3 bytes after the top-level value (from offset 5)
ROWS
"$@" "$tool" --version | grep -q '^cefdump [0-9]' || fail "no version"

# Nesting as deep as the size limit allows (a million levels under emulation) is printed.
depth=$([ $# -gt 0 ] && echo 1000000 || echo 5000000)
{ head -c $depth /dev/zero | tr '\0' l; head -c $depth /dev/zero | tr '\0' e; } >"$dir/deep.cef"
# Natively, within 128 bytes per value plus 16 MiB of address space (not under an emulator
# or a sanitizer, which reserve address space of their own).
limit=$(((128 * depth + 16 * 1048576) / 1024))
if [ $# -gt 0 ] || grep -qaE '__(asan|tsan)_init' "$tool"; then limit=unlimited; fi
out=$( (ulimit -v "$limit" && "$@" "$tool" --compact "$dir/deep.cef") | tr -d '\n') ||
  fail "deep nesting refused"
[ "$out" = "$(head -c $((depth - 1)) /dev/zero | tr '\0' '[')[]$(head -c $((depth - 1)) /dev/zero | tr '\0' ']')" ] ||
  fail "deep nesting printed wrongly"
# Pretty-printed, indentation stops growing at 32 levels: the output stays linear in the
# input at any depth (20,000 levels once made 800 MB).
{ head -c 20000 /dev/zero | tr '\0' l; head -c 20000 /dev/zero | tr '\0' e; } >"$dir/deep.cef"
widest=$("$@" "$tool" "$dir/deep.cef" | awk '{ if (length($0) > w) w = length($0) } END { print w }')
[ "$widest" = 66 ] || fail "deep nesting indented to $widest columns"
echo "cefdump: ok"
