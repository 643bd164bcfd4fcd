#!/bin/sh
# test_deb_armhf.sh PACKAGES SOURCE DIR ARCHITECTURE TREE OTHERS: unpacks the three packages for 32-bit ARM, compiles
# the README's host against them in the README's two ways, with the cross compiler and the tree of armhf packages, and
# runs tool and hosts under the emulator. Where OTHERS has packages for this machine of the same sources, they are
# compared. One line per check; the last line counts them.
# shellcheck disable=SC2086,SC2317 # lists of words; functions that check calls
set -u
unset CDPATH
# shellcheck source=tests/package/deb_checks.sh
. "$2/tests/package/deb_checks.sh"

tree=$5
others=$6
compiler=$triplet-g++
here=$place/here
prefix=$here/usr
emulator="qemu-arm-static -L $tree -E LD_LIBRARY_PATH=$prefix/lib/$triplet"

tool()
{
    $emulator "$prefix/bin/quarrin" "$@"
}

# The three as they lie on a device, in one tree.
unpack_together()
{
    rm -rf "$here"
    mkdir -p "$here"
    for name in $names; do
        dpkg-deb -x "$(file_of "$name")" "$here" || return 1
    done
}

# described DIR ARCHITECTURE TRIPLET: files and dependencies without versions and without what names the architecture.
# The support library of the compiler is not everywhere.
described()
{
    for name in $names; do
        file=$1/${name}_${version}_$2.deb
        dpkg-deb -c "$file" | awk '{ print $1, $2, $6, $7, $8 }' | sort
        dpkg-deb -f "$file" Depends | sed 's/ ([^)]*)//g' | tr ',' '\n' | sed 's/^ *//' | grep -vx libgcc-s1 | sort
        dpkg-deb -f "$file" Package Version Section Priority Multi-Arch Suggests
    done | sed "s/$3/TRIPLET/g"
}

same_as_others()
{
    described "$packages" armhf "$triplet" >"$place/described"
    own=$(dpkg-architecture -q DEB_HOST_ARCH)
    described "$others" "$own" "$(dpkg-architecture -q DEB_HOST_MULTIARCH)" | diff - "$place/described"
}

is_for_arm()
{
    for file in "$prefix/bin/quarrin" "$prefix/lib/$triplet/libquarrin.so.1"; do
        readelf -h "$file" | grep 'Machine: *ARM$' || return 1
        readelf -A "$file" | grep 'Tag_ABI_VFP_args: VFP registers' || return 1
    done
}

says_version()
{
    tool --version | grep -x "${version%-*}"
}

refuses_this_machine()
{
    ! cmake -S "$source/tests/package/finder" -B "$place/refused" -DFINDER_ASKS=REQUIRED \
        -Dquarrin_DIR="$prefix/lib/$triplet/cmake/quarrin" >"$place/refused.log" 2>&1 &&
        tr -s ' \n' ' ' <"$place/refused.log" | grep 'built for 32-bit arm; this project is for'
}

compiles_with_cmake()
{
    mkdir -p "$place/cmake"
    readme_host >"$place/cmake/host.cpp"
    readme_cmake >"$place/cmake/CMakeLists.txt"
    cmake -S "$place/cmake" -B "$place/cmake/built" -DCMAKE_TOOLCHAIN_FILE="$source/cmake/toolchain-armhf.cmake" \
        -DQUARRIN_ARMHF_ROOT="$tree" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_FIND_ROOT_PATH="$here" &&
        cmake --build "$place/cmake/built"
}

compiles_with_pkg_config()
{
    link="-Wl,-rpath-link,$tree/usr/lib/$triplet -Wl,-rpath-link,$tree/lib/$triplet"
    readme_compile | sed "s|^g++|$compiler --sysroot=$tree $link|" >"$place/compile"
    (cd "$place/cmake" && PKG_CONFIG_LIBDIR=$prefix/lib/$triplet/pkgconfig:$tree/usr/lib/$triplet/pkgconfig \
        sh -eu "$place/compile")
}

records_a_clip()
{
    tool record test --format ts --duration 15 --storage "$clips"
}

# plays HOST STORAGE: the host records the clip again.
plays()
{
    mkdir "$2" && $emulator "$1" /dev/null "$2" "$clips/rec/$clip"
}

rm -rf "$place/cmake" "$place/refused" "$place/clips" "$place/one" "$place/two"
check "the packages unpack into one tree" unpack_together || leave 0
if cmp -s "$packages/sources.cksum" "$others/sources.cksum"; then
    check "they hold and need what those for this machine do" same_as_others
else
    echo "not compared with the packages for this machine: none of the same sources are in $others"
fi
check "tool and library are for 32-bit ARM with hard float" is_for_arm
check "library and tool are hardened" "$source/tests/abi/check_hardening.sh" "$prefix/bin/quarrin" \
    "$prefix/lib/$triplet/libquarrin.so.1"
check "the tool runs and says its version" says_version
check "a project for this machine is refused, with the reason" refuses_this_machine
check "the README's CMake lines compile the host" compiles_with_cmake
check "the README's compiler line compiles the host" compiles_with_pkg_config
clips=$place/clips
check "the tool records a clip" records_a_clip
clip=$(basename "$(find "$clips/rec" -name '*.ts')")
check "the first host records it again" plays "$place/cmake/built/host" "$place/one"
check "with every picture" recorded "$place/one" 130
check "the second host records it again" plays "$place/cmake/host" "$place/two"
check "with every picture" recorded "$place/two" 130
rm -rf "$here"
leave 0
