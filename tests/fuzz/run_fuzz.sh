#!/bin/sh
# Builds the bencode fuzz target with clang in build-fuzz and runs it for the given number
# of seconds (default 60). Exits non-zero when the target finds a crash or a round-trip
# mismatch; the failing input is then copied into tests/fuzz/corpus-regressions/, whose
# inputs the unit test bencode_fuzz_regressions_test replays on every run.
set -eu

seconds=${1:-60}
root=$(cd "$(dirname "$0")/../.." && pwd)
build="$root/build-fuzz"
regressions="$root/tests/fuzz/corpus-regressions"

if ! command -v clang++ >/dev/null 2>&1; then
    echo "run_fuzz.sh: clang++ not found; skipping the fuzz run" >&2
    exit 0
fi

mkdir -p "$build"
cmake -S "$root" -B "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPW_BUILD_FUZZ=ON -DPW_BUILD_TESTS=OFF \
    -DPW_BUILD_BENCH=OFF >"$build/configure.log" 2>&1 ||
    { cat "$build/configure.log" >&2; exit 1; }
cmake --build "$build" --target bencode_fuzz -j2

corpus="$build/corpus-bencode"
artifacts="$build/artifacts-bencode"
mkdir -p "$corpus" "$artifacts"
# A few well-formed seeds shaped like the files the agent reads and writes.
printf 'li7ei-9223372036854775808e4:spamlee' >"$corpus/seed-list"
printf 'd1:ai1e1:bd1:xl0:i0eee1:c3:abce' >"$corpus/seed-dictionary"
printf 'li7e40:0123456789abcdef0123456789abcdef01234567i3eld11:CrashReportsdeee' \
    >"$corpus/seed-payload"

status=0
"$build/tests/fuzz/bencode_fuzz" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$artifacts/" "$corpus" "$regressions" || status=$?

for input in "$artifacts"/crash-* "$artifacts"/leak-* "$artifacts"/timeout-* "$artifacts"/oom-*; do
    [ -f "$input" ] || continue
    name=$(basename "$input")
    cp "$input" "$regressions/$name"
    echo "run_fuzz.sh: failing input kept as tests/fuzz/corpus-regressions/$name" >&2
    status=1
done
exit $status
