#!/bin/sh
# size.sh [--write]: measures the footprint on amd64 and on armhf, shows both beside their budgets, and counts. With
# --write, docs/footprint.md gets what was measured. Builds that are there already are used. Without the armhf packages,
# the figures of armhf count as skipped.
set -eu
unset CDPATH
cd "$(dirname "$0")/.."
. cmake/steps.sh

part=size
figures=build/size
case ${1-} in
"" | --write) ;;
*) die "the only option is --write" ;;
esac

# build_for NAME DIR OPTION...: builds library and program, in DIR when that is a build already.
build_for()
{
    directory=$2
    if [ -e "$directory/build.ninja" ]; then
        say "$1: building in $directory"
        ninja -C "$directory" -j "$jobs" quarrin quarrin_footprint >"$figures/$1-build.log" 2>&1 ||
            die "the build failed; its words are in $figures/$1-build.log"
        return
    fi
    directory=$figures/$1
    say "$1: building in $directory"
    shift 2
    build_in "$directory" -DCMAKE_BUILD_TYPE=Release -DQUARRIN_BUILD_TESTS=OFF -DQUARRIN_BUILD_TOOLS=OFF \
        -DQUARRIN_BUILD_BENCHMARKS=ON "$@" || die "the build failed"
}

measure()
{
    say "$1: measuring"
    bench/footprint.sh measure "$directory/bench/footprint" "$directory/libquarrin.so" >"$figures/$1.txt" ||
        die "$1 could not be measured"
}

mkdir -p "$figures"
build_for amd64 build/check/native
measure amd64

armhf=-
status=0
cmake/armhf.sh --prepare >"$figures/prepare.log" || status=$?
if [ "$status" -eq 0 ]; then
    armhf=$figures/armhf.txt
    build_for armhf build/armhf --preset armhf
    QUARRIN_EMULATOR="qemu-arm-static -L $PWD/build/armhf-root" STRIP=arm-linux-gnueabihf-strip measure armhf
elif [ "$status" -ne 77 ]; then
    cat "$figures/prepare.log" >&2
    die "what builds for armhf could not be set up"
fi

if [ "${1-}" = --write ]; then
    [ "$armhf" != - ] || die "the table needs the figures of armhf too"
    bench/footprint.sh write "$figures/amd64.txt" "$armhf"
    say "docs/footprint.md has the figures"
fi
bench/footprint.sh same
say "took $(($(date +%s) - start)) s in all"
bench/footprint.sh check "$figures/amd64.txt" "$armhf"
