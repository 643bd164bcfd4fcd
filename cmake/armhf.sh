#!/bin/sh
# armhf.sh: builds everything for 32-bit ARM with hard float on an x86 Debian, and runs all tests under qemu-arm.
# Sets up what it needs once: the cross compiler, the emulator, and a tree of armhf packages in build/armhf-root.
# Arguments go to CMake; --prepare alone only sets up. The last line counts the tests; when the packages cannot be had,
# it says "1 skipped", and the script ends with 77: nothing was tested then.
set -eu
unset CDPATH
cd "$(dirname "$0")/.."
. cmake/steps.sh

part=armhf
root=build/armhf-root
directory=build/armhf
# What the emulator cannot do: its select ends the program at descriptors beyond 1023.
limits="HotplugPass.DescriptorsBeyond1023Work HotplugInTheWild.DescriptorsAbove1023AreListenedTo"

skip()
{
    cat >&2 <<END
############################################################
SKIPPED: armhf packages cannot be had
$1
############################################################
END
    echo "0 passed, 0 failed, 1 skipped"
    exit 77
}

need_compiler()
{
    if ! command -v arm-linux-gnueabihf-g++ >/dev/null || ! command -v qemu-arm-static >/dev/null; then
        install_packages g++-arm-linux-gnueabihf qemu-user-static || skip "$trouble"
    fi
    command -v arm-linux-gnueabihf-g++ >/dev/null || skip "there is no arm-linux-gnueabihf-g++"
    command -v qemu-arm-static >/dev/null || skip "there is no qemu-arm-static"
}

need_root()
{
    began=$(date +%s)
    status=0
    say "looking after the tree of armhf packages in $root"
    cmake/armhf-sysroot.sh "$root" >build/armhf-root.log 2>&1 </dev/null || status=$?
    [ "$status" -eq 0 ] || tail -n 20 build/armhf-root.log >&2
    [ "$status" -ne 77 ] || skip "no armhf libraries; what apt-get said is in build/armhf-root.log"
    [ "$status" -eq 0 ] || die "the tree could not be made; all of it is in build/armhf-root.log"
    say "the tree is there after $(($(date +%s) - began)) s"
}

check_skips()
{
    for test in $(skipped_tests "$directory" | sed 's/:.*//'); do
        case " $limits " in
        *" $test "*) ;;
        *) broken="$broken skipped-$test" ;;
        esac
    done
}

mkdir -p build
# shellcheck disable=SC2086 # lists of words
need_packages g++ $build_tools $test_tools
need_compiler
need_root
[ "${1-}" != --prepare ] || exit 0
began=$(date +%s)
say "building in $directory"
build_in "$directory" --preset armhf "$@" || die "the build failed"
say "built in $(($(date +%s) - began)) s"
part= # the tests' lines have their name already
test_in armhf "$directory"
! may_skip_nothing || [ ! -s "$directory/ctest.xml" ] || check_skips
summary
