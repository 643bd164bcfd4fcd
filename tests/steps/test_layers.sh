#!/bin/sh
# test_layers.sh PROJECT: cmake/layers.py finds what it is to find, in a little tree of its own.
set -eu
unset CDPATH
project=$1
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
cd "$tree"
mkdir -p docs include src/low src/high tools
cat >docs/layers.txt <<'END'
include:
src/low:    include # a comment
src/high:   include src/low
tools:      include
<libav:     src/low
END
echo '#include "low/low.h"' >src/high/high.h
echo '#include "high/high.h"' >src/high/high.cpp
printf '#include "host.h"\n#include <libavutil/mem.h>\n' >src/low/low.h
echo '#include "low.h"' >src/low/low.cpp
: >include/host.h
echo '#include "host.h"' >tools/main.cpp

fail=0
# expect WORDS: they are the only line that is printed; none: nothing is.
expect()
{
    found=$(python3 -B "$project/cmake/layers.py") && status=0 || status=$?
    if [ "$found" != "$1" ] || [ "$status" -ne "$([ -z "$1" ] && echo 0 || echo 1)" ]; then
        printf 'FAILED: expected "%s", found "%s", status %s\n' "$1" "$found" "$status" >&2
        fail=1
    fi
}

expect ""
echo '#include "../src/low/low.h"' >>tools/main.cpp
expect "tools/main.cpp: tools may not include ../src/low/low.h, which is of src/low"
echo '#include <libavutil/mem.h>' >tools/main.cpp
expect "tools/main.cpp: tools may not include <libavutil/mem.h>"
echo '#include "host.h"' >tools/main.cpp
: >src/low/alone.h
expect "src/low/alone.h: nobody includes it"
echo '#include "low.h"' >src/low/alone.h
echo '#include "alone.h"' >>src/low/low.h
expect "a circle of includes: src/low/alone.h > src/low/low.h > src/low/alone.h"
rm src/low/alone.h
echo '#include "host.h"' >src/low/low.h
sed -i 's#include \# a comment#include src/high#' docs/layers.txt
echo '#include "high/high.h"' >>src/low/low.cpp
expect "a circle of includes: src/high > src/low > src/high"
mkdir src/new
: >src/new/new.cpp
rm src/low/low.cpp
expect "src/new/new.cpp: its folder has no line in docs/layers.txt"
[ "$fail" -eq 0 ]
