#!/bin/sh
# Builds the fuzz targets with clang in build-fuzz and runs each for the given number of
# seconds (default 60), two at a time: bencode_fuzz (the bencode reader and writer) from
# memory and, with BENCODE_FUZZ_FILE=1, through a file, profile_fuzz (the feedback profile
# reader) and report_fuzz (the collector's report validator). Exits non-zero when a target
# finds a crash or a broken check; the failing input is then copied into the target's
# regression directory (tests/fuzz/corpus-regressions/, corpus-regressions-profile/ or
# corpus-regressions-report/), whose inputs the unit test fuzz_regressions_test and the
# collector's validator test replay on every run.
set -eu

seconds=${1:-60}
root=$(cd "$(dirname "$0")/../.." && pwd)
build="$root/build-fuzz"

if ! command -v clang++ >/dev/null 2>&1; then
    echo "run_fuzz.sh: clang++ not found (scripts/setup installs clang)" >&2
    exit 1
fi

mkdir -p "$build"
cmake -S "$root" -B "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPW_BUILD_FUZZ=ON -DPW_BUILD_TESTS=OFF \
    -DPW_BUILD_BENCH=OFF >"$build/configure.log" 2>&1 ||
    { cat "$build/configure.log" >&2; exit 1; }
cmake --build "$build" --target bencode_fuzz profile_fuzz report_fuzz -j2

status=0

# run_target NAME REGRESSION_DIR [FILE_MODE]: runs one target from its seeds and regression
# inputs and keeps what it finds.
run_target() {
    name=$1
    regressions=$2
    corpus="$build/corpus-$name"
    artifacts="$build/artifacts-$name"
    mkdir -p "$artifacts"
    BENCODE_FUZZ_FILE=${3:-0} "$build/tests/fuzz/${name}_fuzz" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$artifacts/" "$corpus" "$regressions" ||
        status=1
    for input in "$artifacts"/crash-* "$artifacts"/leak-* "$artifacts"/timeout-* "$artifacts"/oom-*; do
        [ -f "$input" ] || continue
        cp "$input" "$regressions/$(basename "$input")"
        echo "run_fuzz.sh: failing input kept as $regressions/$(basename "$input")" >&2
        rm -f "$input"
        status=1
    done
}

# A few well-formed seeds shaped like the files the agent reads and writes.
# The report target starts from the reports kept in its regression directory.
mkdir -p "$build/corpus-bencode" "$build/corpus-profile" "$build/corpus-report"
printf 'li7ei-9223372036854775808e4:spamlee' >"$build/corpus-bencode/seed-list"
printf 'd1:ai1e1:bd1:xl0:i0eee1:c3:abce' >"$build/corpus-bencode/seed-dictionary"
printf 'li7e40:0123456789abcdef0123456789abcdef01234567i3eld11:CrashReportsdeee' \
    >"$build/corpus-bencode/seed-payload"
printf '<?xml version="1.0"?>\n<Feedback><ServiceDisable>false</ServiceDisable><CustomerID>CUST-1</CustomerID><FeedbackInterval>86400</FeedbackInterval><CheckCrashInterval>600</CheckCrashInterval><IncludeCrashReport>TRUE</IncludeCrashReport></Feedback>\n' \
    >"$build/corpus-profile/seed-profile"
# A fuzzer runs on one thread: two at a time, one per core, each on a corpus and artifact
# directory of its own. A job's status is its exit status.
run_job() {
    status=0
    run_target "$@"
    return $status
}
status=0
run_job bencode "$root/tests/fuzz/corpus-regressions" &
first=$!
run_job profile "$root/tests/fuzz/corpus-regressions-profile" &
second=$!
wait $first || status=1
wait $second || status=1
run_job bencode "$root/tests/fuzz/corpus-regressions" 1 &
first=$!
run_job report "$root/tests/fuzz/corpus-regressions-report" &
second=$!
wait $first || status=1
wait $second || status=1
exit $status
