#!/bin/sh
# check_symbols.sh LIBRARY LIST [--write]: the library exports what the list names, and nothing else.
# --write makes the list anew: for a change of the interface that is meant, see docs/versioning.md.
#
# One list serves every target: 64-bit numbers stand by their names of <cstdint>, whatever the target calls them. A type
# that has 64 bits on some targets only comes out in another way, and fits no list.
set -eu
export LC_ALL=C

library=$1
list=$2
wide='long'
! readelf -h "$library" | grep -q 'Class: *ELF32' || wide='long long'

exported()
{
    nm -D --defined-only --demangle "$library" |
        sed "s/^[0-9a-f]* *[A-Za-z] //; s/\<unsigned $wide\>/uint64_t/g; s/\<$wide\>/int64_t/g" | sort -u
}

if [ "${3-}" = --write ]; then
    exported >"$list"
    exit 0
fi
if ! exported | diff -u "$list" -; then
    echo "The exported names changed (+ new, - gone). When that is meant, raise the version as docs/versioning.md says," >&2
    echo "and write the list anew: tests/abi/check_symbols.sh LIBRARY tests/abi/exported_symbols.txt --write" >&2
    exit 1
fi
echo "$(wc -l <"$list") exported names, as listed"
