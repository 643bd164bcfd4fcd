#!/bin/sh
# test_steps.sh SOURCE: what the front door shows of a failed run. One line per check.
set -u
cd "$1" || exit 1
# shellcheck source=cmake/steps.sh
. cmake/steps.sh
work=$(mktemp -d /tmp/quarrin-steps-XXXXXX) || exit 1
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM
failures=0

check()
{
    if [ "$2" = "$3" ]; then
        echo "ok: $1"
    else
        echo "FAILED: $1: \"$2\", not \"$3\""
        failures=$((failures + 1))
    fi
}

# lines COUNT WORD: so many lines of a talkative library.
lines()
{
    awk -v n="$1" -v word="$2" 'BEGIN { for (i = 1; i <= n; ++i) print "[INFO][" word ":" i "] nothing new" }'
}

# A race in the first of two programs, a failed assertion and then thousands of lines; a leak at the end of the second.
{
    echo " 1/4 Test  #1: util .............................   Passed    0.10 sec"
    echo " 2/4 Test  #2: core .............................***Failed   12.00 sec"
    lines 3000 early
    echo "=================="
    echo "WARNING: ThreadSanitizer: data race (pid=7)"
    echo "  Write of size 4 at 0x7b04 by thread T1:"
    echo "    #0 One() one.cpp:1 (test_core+0x1)"
    echo ""
    echo "  Previous read of size 4 at 0x7b04 by main thread:"
    echo "    #0 Other() other.cpp:2 (test_core+0x2)"
    echo "SUMMARY: ThreadSanitizer: data race one.cpp:1 in One()"
    echo "=================="
    lines 3000 middle
    echo "/somewhere/test_core.cpp:12: Failure"
    echo "Expected equality of these values:"
    echo "  1"
    echo ""
    echo "  two"
    echo "[  FAILED  ] Core.CountsToTwo (3 ms)"
    lines 3000 late
    echo "[  FAILED  ] 1 test, listed below:"
    echo " 3/4 Test  #3: record ...........................***Failed    2.00 sec"
    echo "/somewhere/test_record.cpp:5:3: runtime error: signed integer overflow"
    echo "    #0 Adds() adds.cpp:3"
    echo ""
    lines 3000 more
    echo "==9==ERROR: LeakSanitizer: detected memory leaks"
    echo "Direct leak of 8 byte(s) in 1 object(s) allocated from:"
    echo "    #0 operator new(unsigned long)"
    echo "SUMMARY: AddressSanitizer: 8 byte(s) leaked in 1 allocation(s)."
    echo " 4/4 Test  #4: media ............................***Exception: SegFault  0.50 sec"
    lines 3000 media
    echo "the last words"
} >"$work/log"
show_failures "$work/log" >"$work/shown"

# has LINE TIMES
has()
{
    check "\"$1\" is shown" "$(grep -cFx -- "$1" "$work/shown")" "$2"
}

has "WARNING: ThreadSanitizer: data race (pid=7)" 1
has "    #0 One() one.cpp:1 (test_core+0x1)" 1
has "    #0 Other() other.cpp:2 (test_core+0x2)" 1
has "SUMMARY: ThreadSanitizer: data race one.cpp:1 in One()" 1
has "/somewhere/test_core.cpp:12: Failure" 1
has "  two" 1
has "[  FAILED  ] Core.CountsToTwo (3 ms)" 1
has "    #0 Adds() adds.cpp:3" 1
has "Direct leak of 8 byte(s) in 1 object(s) allocated from:" 1
has "SUMMARY: AddressSanitizer: 8 byte(s) leaked in 1 allocation(s)." 1
has "the last words" 1
check "a program that passed is not named" "$(grep -c util "$work/shown")" 0
check "the library's lines stay in the log" "$(($(wc -l <"$work/shown") < 300))" 1

[ "$failures" -eq 0 ]
