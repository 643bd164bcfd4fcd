#!/bin/sh
# check_header.sh COMPILER FLAGS INCLUDE: on a 32-bit target the header compiles with both definitions for 64-bit
# offsets and times, and stops a build that lacks one of them with words that say what to do.
set -u

compiler=$1
flags=$2
include=$3
log=$(mktemp) || exit 1
trap 'rm -f "$log"' EXIT
failures=0

compiles()
{
    # shellcheck disable=SC2086 # flags are words
    echo '#include <libquarrin.h>' | "$compiler" $flags -std=c++17 -fsyntax-only -I"$include" "$@" -x c++ - >"$log" 2>&1
}

# stops SENTENCE DEFINITION...: with these alone the header stops the build.
stops()
{
    sentence=$1
    shift
    if compiles "$@"; then
        echo "FAILED: $sentence: it compiles"
    elif ! grep -q 'error: #error "libquarrin on a 32-bit target needs -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64' "$log"; then
        echo "FAILED: $sentence: it does not say why"
        cat "$log"
    else
        echo "ok: $sentence"
        return
    fi
    failures=$((failures + 1))
}

stops "neither definition"
stops "offsets alone" -D_FILE_OFFSET_BITS=64
stops "times alone" -D_TIME_BITS=64
stops "32-bit offsets on purpose" -D_FILE_OFFSET_BITS=32 -D_TIME_BITS=64
if compiles -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64; then
    echo "ok: both definitions"
else
    echo "FAILED: both definitions"
    cat "$log"
    failures=$((failures + 1))
fi
[ "$failures" -eq 0 ]
