#!/bin/sh
# check_hardening.sh FILE...: each file is built so that a fault in memory is hard to use, and looks for its libraries
# in absolute folders alone. READELF names the reader of another machine's files, OPTIMISED=no a build without checked
# functions.
set -eu
export LC_ALL=C
readelf=${READELF:-readelf}
failed=0

# complain FILE WHAT
complain()
{
    echo "$1: $2" >&2
    failed=1
}

for file in "$@"; do
    [ -s "$file" ] || { complain "$file" "is not there"; continue; }
    headers=$("$readelf" -Wl "$file")
    dynamic=$("$readelf" -Wd "$file")
    symbols=$("$readelf" -W --dyn-syms "$file")
    "$readelf" -h "$file" | grep -q 'Type: *DYN' || complain "$file" "is bound to an address"
    echo "$headers" | grep -q '^ *GNU_RELRO ' || complain "$file" "has relocations that stay writable"
    echo "$headers" | grep '^ *GNU_STACK ' | grep -q ' RW  *0x' || complain "$file" "has an executable stack"
    echo "$dynamic" | grep -qE '\(BIND_NOW\)|\(FLAGS\).*BIND_NOW|\(FLAGS_1\).* NOW' || complain "$file" "binds late"
    echo "$symbols" | grep -q '__stack_chk_fail' || complain "$file" "has no stack protector"
    [ "${OPTIMISED-}" = no ] || echo "$symbols" | grep -qE 'UND __[a-z]+_chk(@|$)' ||
        complain "$file" "calls no checked function"
    case ${file##*/} in
    *.so*) ;;
    *) echo "$dynamic" | grep -q '\(FLAGS_1\).* PIE' || complain "$file" "is no position-independent program" ;;
    esac
    # One line per folder; an empty one is the current folder.
    folders=$(echo "$dynamic" | sed -n 's/.*(R[UN]*PATH).*\[\(.*\)\]$/\1:/p')
    while [ -n "$folders" ]; do
        folder=${folders%%:*} folders=${folders#*:}
        case $folder in
        /* | '$ORIGIN' | '$ORIGIN'/*) ;;
        *) complain "$file" "looks for libraries in \"$folder\"" ;;
        esac
    done
done
[ "$failed" -eq 0 ] || exit 1
echo "$# files, as they should be"
