#!/bin/sh
# coverage.sh [--write]: builds with gcov's counters, runs all tests, and tells which lines and branches of src/ and
# platform/ they ran. All lines of src/ have to be run, but those of exceptions.txt. --write brings docs/testing.md's
# table up to date.
set -eu
unset CDPATH
cd "$(dirname "$0")/../.."
. cmake/steps.sh

part=coverage
figures=build/coverage
tree=$figures/tree
case ${1-} in
"" | --write) ;;
*) die "the only option is --write" ;;
esac

say "building in $tree"
# Absolute paths: the programs of the tests run everywhere. Atomic counters: so do the threads.
build_in "$tree" -DCMAKE_BUILD_TYPE=Coverage -DQUARRIN_BUILD_TESTS=ON -DQUARRIN_BUILD_TOOLS=ON \
    -DQUARRIN_BUILD_BENCHMARKS=OFF \
    -DCMAKE_CXX_FLAGS="-O0 -g1 --coverage -fprofile-update=atomic -fprofile-abs-path" || die "the build failed"
find "$tree" -name '*.gcda' -delete
jobs=$((2 * jobs)) # tests mostly wait
test_in coverage "$tree"

say "reading the counters"
# The branches that only an exception takes stand behind nearly every call; they are left out.
branches="--rc lcov_branch_coverage=1 --rc geninfo_no_exception_branch=1"
# shellcheck disable=SC2086 # words
{
    lcov $branches --capture --directory "$tree/CMakeFiles/quarrin.dir" \
        --directory "$tree/platform/CMakeFiles/quarrin_platform.dir" --output-file "$figures/all.info" &&
        lcov $branches --extract "$figures/all.info" "$PWD/src/*" "$PWD/platform/*" --output-file "$figures/coverage.info" &&
        genhtml $branches --prefix "$PWD" --output-directory "$figures/html" "$figures/coverage.info"
} >"$figures/lcov.log" 2>&1 || { tail -n 20 "$figures/lcov.log" >&2; die "lcov failed; its words are in $figures/lcov.log"; }
python3 -B tests/coverage/lines.py "$figures" ${1+"$1"} || broken="$broken lines-never-run"
say "the lines that were never run are listed in $figures/never_run.txt; $figures/html shows every file"
summary
