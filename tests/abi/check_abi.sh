#!/bin/sh
# check_abi.sh LIBRARY SOURCE BUILD: functions, records and enumerations of the library are those of the last release, as
# the debug information of both tells. The release's library is built from its commit, which tests/abi/release names, in
# BUILD/abi, by the compiler and for the machine that BUILD is for; once for each release.
# Ends with 77 where there is no abidiff, or SOURCE is no clone and has no history to build from.
set -eu
unset CDPATH
library=$1 source=$2 build=$3
commit=$(cat "$source/tests/abi/release")
place=$build/abi/$commit

command -v abidiff >/dev/null || { echo "abidiff (package abigail-tools) is missing"; exit 77; }
readelf -S "$library" | grep -q '\.debug_info' || { echo "$library has no debug information: build it with -g"; exit 1; }
if [ ! -e "$place/done" ]; then
    [ -e "$source/.git" ] || { echo "$source is no clone: there is no release to compare with"; exit 77; }
    # A clone may be somebody else's, for a build as root.
    history="git -c safe.directory=* -C $source"
    if ! $history cat-file -e "$commit^{commit}" 2>/dev/null; then
        echo "This clone has not got the commit of the last release, to which the ABI is compared. Fetch it:" >&2
        echo "    git fetch origin $commit        (or, in a shallow clone, git fetch --unshallow)" >&2
        exit 1
    fi
    rm -rf "$build/abi"
    mkdir -p "$place/source"
    $history archive "$commit" | tar -x -C "$place/source"
    cached()
    {
        sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt" | head -n 1
    }
    toolchain=$(cached CMAKE_TOOLCHAIN_FILE)
    tree=$(cached CMAKE_SYSROOT)
    # Their warnings are not looked at: another compiler may have new ones.
    QUARRIN_ARMHF_ROOT=${QUARRIN_ARMHF_ROOT:-$tree} cmake -S "$place/source" -B "$place/build" -G "$(cached CMAKE_GENERATOR)" \
        -DCMAKE_BUILD_TYPE=Release ${toolchain:+"-DCMAKE_TOOLCHAIN_FILE=$toolchain"} \
        "-DCMAKE_CXX_COMPILER=$(cached CMAKE_CXX_COMPILER)" "-DCMAKE_CXX_FLAGS=-g -w" -DQUARRIN_BUILD_TESTS=OFF \
        -DQUARRIN_BUILD_TOOLS=OFF -DQUARRIN_BUILD_BENCHMARKS=OFF >"$place/log" 2>&1 &&
        cmake --build "$place/build" --target quarrin >>"$place/log" 2>&1 ||
        { tail -n 40 "$place/log" >&2; echo "the library of the last release does not build" >&2; exit 1; }
    cp "$(readlink -f "$place/build/libquarrin.so")" "$place/libquarrin.so"
    rm -rf "$place/source" "$place/build"
    : >"$place/done"
fi
if ! abidiff --exported-interfaces-only --no-added-syms --suppressions "$source/tests/abi/libquarrin.suppr" \
    "$place/libquarrin.so" "$library"; then
    echo "The ABI is another one than that of $commit. When that is meant, raise the version as docs/versioning.md says;" >&2
    echo "the next release writes its commit to tests/abi/release" >&2
    exit 1
fi
echo "the ABI is that of the last release, $commit"
