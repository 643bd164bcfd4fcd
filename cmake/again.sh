#!/bin/sh
# again.sh N PROGRAM|all [PASS]: runs test programs N times each, their tests in another order every time, beside two busy
# processes, and stopped for a moment now and then as a busy machine stops them. What fails so may fail anywhere.
# PROGRAM is a name of ctest's ("core" for test_core). PASS is native, asan or tsan, which are built when needed, or armhf,
# which ./run armhf has built. The last line counts the runs.
set -eu
unset CDPATH
cd "$(dirname "$0")/.."
. cmake/steps.sh

part=again
busy=2
runs=${1-} wanted=${2-} pass=${3-native}
case $runs in
"" | *[!0-9]* | 0) die "how often? ./run again N PROGRAM|all [PASS]" ;;
esac
[ -n "$wanted" ] || die "which program? ./run again N PROGRAM|all [PASS]"
directory=$(pass_directory "$pass")
[ "$pass" != armhf ] || directory=build/armhf
results=build/again/$pass
seed=${QUARRIN_SEED:-$start}

# The programs of GoogleTest among ctest's tests: the others have no order to be changed.
programs()
{
    ctest --test-dir "$directory" -N | sed -n 's/^ *Test *#[0-9]*: //p' | while read -r name; do
        [ -z "$(find "$directory" -type f -name "test_$name" -perm -100 | head -n 1)" ] || echo "$name"
    done
}

# random FROM TO: milliseconds, as seconds for sleep.
random()
{
    number=$(od -An -N4 -tu4 /dev/urandom)
    number=$(($1 + number % ($2 - $1)))
    printf '%d.%03d\n' $((number / 1000)) $((number % 1000))
}

# Stops the program's whole group for up to a third of a second, again and again, until the program is gone.
stall()
{
    while sleep "$(random 100 3000)" && kill -STOP "-$1" 2>/dev/null; do
        sleep "$(random 5 350)"
        kill -CONT "-$1" 2>/dev/null || true
    done
}

load=
cleanup()
{
    # shellcheck disable=SC2086 # a list of words
    [ -z "$load" ] || kill $load 2>/dev/null || true
    load=
    [ -z "${group-}" ] || kill -KILL "-$group" 2>/dev/null || true
}
trap cleanup EXIT
trap 'exit 1' HUP INT TERM

# As fixed_addresses of steps.sh, in a line that makes a group of its own.
fixed=
! setarch "$(uname -m)" -R true 2>/dev/null || fixed="setarch $(uname -m) -R"

# run_once NAME SEED LOG: one run; the result of ctest.
run_once()
{
    # shellcheck disable=SC2086 # a list of words
    GTEST_SHUFFLE=1 GTEST_RANDOM_SEED=$2 GTEST_BRIEF=1 setsid $fixed ctest --test-dir "$directory" -R "^$1\$" \
        --output-on-failure --test-output-size-failed "$whole" >"$3" 2>&1 </dev/null &
    group=$!
    stall "$group" &
    staller=$!
    status=0
    wait "$group" || status=$?
    kill "$staller" 2>/dev/null || true
    wait "$staller" 2>/dev/null || true
    group=
    return "$status"
}

# run_program NAME: all runs of one; its line of the table goes to $results/table.
run_program()
{
    bad=0 slowest=0 run=0
    while [ "$run" -lt "$runs" ]; do
        run=$((run + 1))
        order=$(((seed + run) % 99999 + 1))
        log=$results/$1.$run.log
        began=$(date +%s)
        if run_once "$1" "$order" "$log"; then
            passed=$((passed + 1))
            rm -f "$log"
        else
            failed=$((failed + 1)) bad=$((bad + 1))
            show_failures "$log" >&2
            say "$1: run $run failed; GTEST_SHUFFLE=1 GTEST_RANDOM_SEED=$order has its order, $log all of its words"
        fi
        took=$(($(date +%s) - began))
        [ "$took" -le "$slowest" ] || slowest=$took
    done
    [ "$bad" -eq 0 ] || broken="$broken $1"
    printf '%-16s %5d %7d %7d s  %s\n' "$1" "$runs" "$bad" "$slowest" "$(failed_tests "$1")" >>"$results/table"
    tail -n 1 "$results/table"
}

# Which tests of a program failed, and how often.
failed_tests()
{
    for log in "$results/$1".*.log; do
        [ ! -e "$log" ] || sed -nE 's/^\[  FAILED  \] ([^ ,]+\.[^ ,]+).*/\1/p' "$log" | sort -u
    done | sort | uniq -c | awk '{ printf "%s (%d) ", $2, $1 }'
}

run_all()
{
    rm -rf "$results"
    mkdir -p "$results"
    say "$pass: $runs runs of each; QUARRIN_SEED=$seed gives the same orders again"
    while [ "$busy" -gt 0 ]; do
        busy=$((busy - 1))
        (while :; do :; done) &
        load="$load $!"
    done
    if [ "$wanted" = all ]; then
        list=$(programs)
    else
        list=$(programs | grep -Fx -- "$wanted") || die "\"$wanted\" is none of these:" "$(programs | tr '\n' ' ')"
    fi
    for program in $list; do
        run_program "$program"
    done
    printf '\n%-16s %5s %7s %9s  %s\n' program runs failed slowest "tests that failed, and how often"
    cat "$results/table"
    summary
}

if [ "$pass" != armhf ]; then
    say "building in $directory"
    if [ "$wanted" = all ]; then
        build_pass "$pass" || die "the build failed"
    else
        build_pass "$pass" "test_$wanted" || die "the build failed"
    fi
elif [ ! -e "$directory/build.ninja" ]; then
    die "./run armhf has not built it yet"
fi
run_all
