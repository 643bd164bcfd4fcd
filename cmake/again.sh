#!/bin/sh
# again.sh N PROGRAM|all [PASS]: runs test programs N times each, their tests in another order every time, some programs side
# by side, beside two busy processes, and stopped for a moment now and then as a busy machine stops them. What fails so may
# fail anywhere. PROGRAM is a name of ctest's ("core" for test_core), or several with a blank between. PASS is native, asan or
# tsan, which are built when needed, or armhf, which ./run armhf has built. The last line counts the runs.
# QUARRIN_SIDE: how many programs at a time; tests mostly wait.
set -eu
unset CDPATH
cd "$(dirname "$0")/.."
. cmake/steps.sh

part=again

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

# ---- one run, in a process of its own: again.sh --one DIRECTORY RESULTS SEED NAME RUN

run_one()
{
    directory=$1 results=$2 name=$4 run=$5
    order=$((($3 + run) % 99999 + 1))
    log=$results/$name.$run.log
    # As fixed_addresses of steps.sh, in a line that makes a group of its own.
    fixed=
    ! setarch "$(uname -m)" -R true 2>/dev/null || fixed="setarch $(uname -m) -R"
    # shellcheck disable=SC2086 # a list of words
    GTEST_SHUFFLE=1 GTEST_RANDOM_SEED=$order GTEST_BRIEF=1 setsid $fixed ctest --test-dir "$directory" -R "^$name\$" \
        --output-on-failure --test-output-size-failed "$whole" >"$log" 2>&1 </dev/null &
    group=$!
    stall "$group" &
    staller=$!
    status=0
    wait "$group" || status=$?
    kill "$staller" 2>/dev/null || true
    wait "$staller" 2>/dev/null || true
    group=
    if [ "$status" -eq 0 ]; then
        rm -f "$log"
    else
        show_failures "$log" >&2
        say "$name: run $run failed; GTEST_SHUFFLE=1 GTEST_RANDOM_SEED=$order has its order, $log all of its words"
    fi
    echo "$name $status $(($(date +%s) - start))" >>"$results/runs"
}

if [ "${1-}" = --one ]; then
    shift
    run_one "$@"
    exit 0
fi

# ---- all runs

busy=2
side=${QUARRIN_SIDE:-$((jobs * 4))}
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

# Which tests of a program failed, and how often.
failed_tests()
{
    for log in "$results/$1".*.log; do
        [ ! -e "$log" ] || sed -nE 's/^\[  FAILED  \] ([^ ,]+\.[^ ,]+).*/\1/p' "$log" | sort -u
    done | sort | uniq -c | awk '{ printf "%s (%d) ", $2, $1 }'
}

table()
{
    printf '\n%-16s %5s %7s %9s  %s\n' program runs failed slowest "tests that failed, and how often"
    for program in $list; do
        # shellcheck disable=SC2046 # three words
        set -- $(awk -v name="$program" '$1 == name { ++n; if ($2 != 0) ++bad; if ($3 > most) most = $3 }
            END { print n + 0, bad + 0, most + 0 }' "$results/runs")
        # A run that left no word did not pass.
        passed=$((passed + $1 - $2)) failed=$((failed + $2 + runs - $1))
        [ $(($2 + runs - $1)) -eq 0 ] || broken="$broken $program"
        printf '%-16s %5d %7d %7d s  %s\n' "$program" "$1" "$2" "$3" "$(failed_tests "$program")"
    done
}

run_all()
{
    rm -rf "$results"
    mkdir -p "$results"
    : >"$results/runs"
    say "$pass: $runs runs of each, $side at a time; QUARRIN_SEED=$seed gives the same orders again"
    while [ "$busy" -gt 0 ]; do
        busy=$((busy - 1))
        (while :; do :; done) &
        load="$load $!"
    done
    list=$(programs)
    if [ "$wanted" != all ]; then
        for program in $wanted; do
            echo "$list" | grep -qFx -- "$program" || die "\"$program\" is none of these:" "$(echo "$list" | tr '\n' ' ')"
        done
        list=$wanted
    fi
    # Every program once, then every one again: those side by side are not always the same.
    run=0
    while [ "$run" -lt "$runs" ]; do
        run=$((run + 1))
        for program in $list; do
            echo "$program $run"
        done
    done | xargs -P "$side" -L 1 sh cmake/again.sh --one "$directory" "$results" "$seed"
    table
    summary
}

if [ "$pass" != armhf ]; then
    say "building in $directory"
    wants=
    [ "$wanted" = all ] || wants=$(printf 'test_%s ' $wanted)
    # shellcheck disable=SC2086 # a list of words
    build_pass "$pass" $wants || die "the build failed"
elif [ ! -e "$directory/build.ninja" ]; then
    die "./run armhf has not built it yet"
fi
run_all
