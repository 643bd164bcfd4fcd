#!/bin/sh
# test_find.sh PREFIX SOURCE: whom the CMake package installed in PREFIX serves, and whom it refuses with which words.
# One line per check.
set -u

prefix=$1
source=$2
toolchain=${QUARRIN_TOOLCHAIN-}
version=$(sed -n 's/^project(quarrin VERSION \([0-9.]*\).*/\1/p' "$source/CMakeLists.txt")
major=${version%%.*}
rest=${version#*.}
minor=${rest%%.*}
work=$(mktemp -d /tmp/quarrin-find-XXXXXX) || exit 1
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM
failures=0

report()
{
    if [ "$1" -eq 0 ]; then
        echo "ok: $2"
    else
        echo "FAILED: $2"
        cat "$work/log"
        failures=$((failures + 1))
    fi
}

# find WORDS OPTION...: a project of its own that asks for the package. The compiler is examined once per directory.
find()
{
    words=$1
    shift
    cmake -S "$source/tests/package/finder" -B "$work/${directory:-own}" -DFINDER_ASKS="$words" \
        -Dquarrin_DIR=quarrin_DIR-NOTFOUND -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_FIND_ROOT_PATH="$prefix" \
        "$@" >"$work/log" 2>&1
}

# taken SENTENCE WORDS: found in the right version.
taken()
{
    find "$2" -DCMAKE_TOOLCHAIN_FILE="$toolchain" && grep -qx -e "-- found version $version" "$work/log"
    report $? "$1"
}

# refused SENTENCE TEXT WORDS OPTION...: not found, with TEXT in what CMake says, its line ends taken away.
refused()
{
    sentence=$1
    text=$2
    shift 2
    status=1
    if ! find "$@"; then
        tr -s ' \n' ' ' <"$work/log" | grep -qF -e "$text"
        status=$?
    fi
    report "$status" "$sentence"
}

cmake -DSOURCE="$source" -DWORK="$work/answers" -P "$source/tests/package/architecture.cmake" >"$work/log" 2>&1
report $? "the version file answers projects for many machines"

taken "find_package without a version" ""
taken "the version that is here" "$version EXACT REQUIRED"
taken "an older minor version of the same major" "$major.0 REQUIRED"
taken "the major version alone" "$major REQUIRED"
taken "the components by name" "REQUIRED COMPONENTS quarrin platform"
taken "an optional component that there is not" "REQUIRED OPTIONAL_COMPONENTS player"
own="-DCMAKE_TOOLCHAIN_FILE=$toolchain"
refused "the next major version is refused" "version: $version" "$((major + 1)).0 REQUIRED" "$own"
refused "a newer minor version is refused" "version: $version" "$major.$((minor + 1)) REQUIRED" "$own"
refused "the major version before is refused" "version: $version" "$((major - 1)).9 REQUIRED" "$own"
refused "a component that there is not is refused" "there is no component player" "REQUIRED COMPONENTS player" "$own"

# The compilers of this machine that make code for another one.
own_machine=$("${CXX:-g++}" -dumpmachine)
for compiler in g++ arm-linux-gnueabihf-g++ arm-linux-gnueabi-g++ aarch64-linux-gnu-g++; do
    machine=$("$compiler" -dumpmachine 2>/dev/null) || machine=$own_machine
    [ "$machine" != "$own_machine" ] || continue
    directory=foreign-$compiler
    refused "a project for $machine is refused, with the reason" "$version (built for" "REQUIRED" \
        -DCMAKE_CXX_COMPILER="$compiler"
    refused "and without REQUIRED" "NOT FOUND $version (built for" "QUIET" -DCMAKE_CXX_COMPILER="$compiler"
done

[ "$failures" -eq 0 ]
