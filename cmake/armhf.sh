#!/bin/sh
# armhf.sh: builds everything for 32-bit ARM with hard float on an x86 Debian, and runs all tests under qemu-arm.
# Sets up what it needs once: the cross compiler, the emulator, and a tree of armhf packages in build/armhf-root.
# The last line counts the tests. Ends with 77 when the packages cannot be had: nothing was tested then.
set -eu
unset CDPATH
cd "$(dirname "$0")/.."

root=build/armhf-root
directory=build/armhf
start=$(date +%s)

say()
{
    printf '==> armhf: %s\n' "$*"
}

skip()
{
    echo "############################################################" >&2
    echo "SKIPPED: armhf packages cannot be had" >&2
    echo "$1" >&2
    echo "############################################################" >&2
    exit 77
}

# Shows the end of a log that a failing step wrote.
die()
{
    tail -n 200 "$2" >&2
    say "$1"
    exit 1
}

have_programs()
{
    command -v arm-linux-gnueabihf-g++ >/dev/null && command -v qemu-arm-static >/dev/null
}

need_programs()
{
    ! have_programs || return 0
    say "installing the cross compiler and the emulator"
    as_root=
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || skip "there is neither root nor sudo to install g++-arm-linux-gnueabihf and qemu-user-static"
        as_root=sudo
    fi
    # The lists may be old; when they cannot be renewed, the packages may be there all the same.
    $as_root env DEBIAN_FRONTEND=noninteractive apt-get update -q >build/armhf-packages.log 2>&1 </dev/null || true
    $as_root env DEBIAN_FRONTEND=noninteractive apt-get install -qy --no-install-recommends g++-arm-linux-gnueabihf \
        qemu-user-static >>build/armhf-packages.log 2>&1 </dev/null || true
    have_programs || skip "no cross compiler or no emulator; what apt-get said is in build/armhf-packages.log"
}

need_root()
{
    before=$(date +%s)
    status=0
    cmake/armhf-sysroot.sh "$root" >build/armhf-root.log 2>&1 </dev/null || status=$?
    [ "$status" -ne 77 ] || skip "no armhf libraries; what apt-get said is in build/armhf-root.log"
    [ "$status" -eq 0 ] || die "making $root failed" build/armhf-root.log
    say "the tree of armhf packages is there after $(($(date +%s) - before)) s"
}

build()
{
    say "building in $directory"
    mkdir -p "$directory"
    launcher=
    ! command -v ccache >/dev/null || launcher=ccache
    cmake --preset armhf -DCMAKE_CXX_COMPILER_LAUNCHER="$launcher" "$@" >"$directory/configure.log" 2>&1 ||
        die "configuring failed" "$directory/configure.log"
    cmake --build "$directory" -- -k 0 -j "$(nproc)" >"$directory/build.log" 2>&1 ||
        die "the build failed" "$directory/build.log"
    say "built after $(($(date +%s) - start)) s; running the tests under qemu-arm"
}

# Counts the tests inside the programs of GoogleTest, and each other test as one. Prints "PASSED FAILED SKIPPED".
count()
{
    sed -n 's/.*<testcase name="\([^"]*\)".*status="\([a-z]*\)".*/\1 \2/p' "$directory/ctest.xml" |
        while read -r name status; do
            report=$directory/results/test_$name.xml
            ok=0 bad=0 left=0
            if [ -s "$report" ]; then
                bad=$(sed -n 's/^<testsuites .* failures="\([0-9]*\)".*/\1/p' "$report")
                left=$(grep -c 'result="skipped"' "$report") || true
                ok=$(($(sed -n 's/^<testsuites tests="\([0-9]*\)".*/\1/p' "$report") - bad - left))
            elif [ "$status" = run ]; then
                ok=1
            elif [ "$status" != fail ]; then
                left=1
            fi
            # A program may fail as a whole, by crashing for one.
            [ "$status" != fail ] || [ "$bad" -gt 0 ] || bad=1
            echo "$ok $bad $left"
        done | awk '{ p += $1; f += $2; s += $3 } END { printf "%d %d %d\n", p, f, s }'
}

run_tests()
{
    rm -rf "$directory/results" "$directory/ctest.xml"
    status=0
    GTEST_OUTPUT=xml:$PWD/$directory/results/ GTEST_BRIEF=1 ctest --preset armhf -j "$(nproc)" \
        --output-junit "$PWD/$directory/ctest.xml" >"$directory/test.log" 2>&1 </dev/null || status=$?
    [ "$status" -eq 0 ] || sed '/^Test project/d; /^ *Start /d' "$directory/test.log" | tail -n 400 >&2
    [ -s "$directory/ctest.xml" ] || { say "ctest did not run"; exit 1; }
    sed -n 's/.*name="\([^"]*\)".*result="skipped".*classname="\([^"]*\)".*/    skipped: \2.\1/p' \
        "$directory"/results/*.xml
    # shellcheck disable=SC2046 # three words
    set -- $(count)
    say "took $(($(date +%s) - start)) s in all"
    echo "$1 passed, $2 failed, $3 skipped"
    [ "$status" -eq 0 ] && [ "$2" -eq 0 ] && [ "$1" -gt 0 ]
}

mkdir -p build
need_programs
need_root
build "$@"
run_tests
