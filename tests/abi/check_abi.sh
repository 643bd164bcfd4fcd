#!/bin/sh
# check_abi.sh LIBRARY [--write]: functions, records and enumerations are those of the baseline, as the debug
# information of the library tells. --write makes the baseline anew: for a change that is meant, see docs/versioning.md.
# Ends with 77 where there is no abidiff, or no baseline for the library's machine.
set -eu

library=$1
here=$(dirname "$0")
suppressions=$here/libquarrin.suppr
case $(readelf -h "$library" | sed -n 's/^ *Machine: *//p') in
*X86-64*) baseline=$here/libquarrin-amd64.abi ;;
ARM) baseline=$here/libquarrin-armhf.abi ;;
*)
    echo "no baseline for this machine"
    exit 77
    ;;
esac
command -v abidiff >/dev/null || { echo "abidiff (package abigail-tools) is missing"; exit 77; }
readelf -S "$library" | grep -q '\.debug_info' || { echo "$library has no debug information: build it with -g"; exit 1; }

if [ "${2-}" = --write ]; then
    abidw --exported-interfaces-only --suppressions "$suppressions" --no-corpus-path --no-comp-dir-path --no-show-locs \
        --type-id-style hash "$library" | sed "s|path='[^']*/src/|path='src/|" >"$baseline"
    exit 0
fi
if ! abidiff --exported-interfaces-only --suppressions "$suppressions" "$baseline" "$library"; then
    echo "The ABI changed. When that is meant, raise the version as docs/versioning.md says, and write the baselines" >&2
    echo "anew: tests/abi/check_abi.sh LIBRARY --write, once for each machine" >&2
    exit 1
fi
echo "the ABI is that of $(basename "$baseline")"
