#!/bin/sh
# run_fuzz.sh BUILD SECONDS JOBS: runs every fuzz target of a build directory for some seconds, JOBS side by side.
# What a target learns stays in BUILD/corpus and is where the next run begins; what it finds lies in BUILD/found.
# The last line is "PASSED FAILED".
set -u
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd) seconds=$2 jobs=$3
programs=$build/tests/fuzz
scratch=$(mktemp -d "$([ -w /dev/shm ] && echo /dev/shm || echo "${TMPDIR:-/tmp}")/quarrin-fuzz-run-XXXXXX")
trap 'rm -rf "$scratch"' EXIT
trap 'exit 1' HUP INT TERM

# A file may claim to be of any size: an allocation that no card's file needs fails, as it may on the device.
export TMPDIR="$scratch"
export ASAN_OPTIONS=allocator_may_return_null=1:max_allocation_size_mb=256
export LSAN_OPTIONS="suppressions=$here/../sanitizers/leak.supp:print_suppressions=0"
export UBSAN_OPTIONS=print_stacktrace=1

rm -rf "$build/seeds" "$build/results"
mkdir -p "$build/found" "$build/results"
if ! "$programs/seeds" "$build/seeds" >"$build/seeds.log" 2>&1; then
    tail -n 40 "$build/seeds.log" >&2
    echo "0 1"
    exit 1
fi

# One target: its log, and its result as "ok" or "bad".
# shellcheck disable=SC2016 # the inner shell fills these in
one='
target=$1 build=$2 seconds=$3 programs=$4
mkdir -p "$build/corpus/$target"
if "$programs/$target" -max_total_time="$seconds" -len_control=10 -timeout=30 -rss_limit_mb=2560 -print_final_stats=1 \
    -artifact_prefix="$build/found/$target-" "$build/corpus/$target" "$build/seeds/$target" \
    >"$build/results/$target.log" 2>&1; then
    echo ok >"$build/results/$target"
else
    echo bad >"$build/results/$target"
fi'
find "$programs" -maxdepth 1 -name 'fuzz_*' -type f -perm -100 -exec basename {} \; | sort |
    xargs -I '{}' -P "$jobs" sh -c "$one" one '{}' "$build" "$seconds" "$programs"

passed=0 failed=0
for result in "$build"/results/fuzz_*; do
    [ "$result" = "${result%.log}" ] || continue
    log=$result.log
    target=$(basename "$result")
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
    if [ "$(cat "$result")" = ok ]; then
        passed=$((passed + 1))
        echo "    $target: ${runs:-0} inputs, ${rate:-0} a second"
    else
        failed=$((failed + 1))
        echo "    $target: failed"
        grep -v '^#' "$log" | tail -n 60 >&2
        echo "once more: $programs/$target $build/found/$target-..." >&2
    fi
done
echo "$passed $failed"
[ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
