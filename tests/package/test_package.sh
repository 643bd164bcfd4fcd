#!/bin/sh
# test_package.sh BUILD SOURCE: installs a finished build into a directory of its own and uses it as a host would, with
# CMake and with pkg-config; looks at the library's links to the outside. One line per check.
set -u

build=$1
source=$2
here=$source/tests/package
compiler=${CXX:-g++}
# A build for another machine: its CMake toolchain file, its libraries, and the command that starts its programs.
toolchain=${QUARRIN_TOOLCHAIN-}
sysroot=${QUARRIN_SYSROOT-}
emulator=${QUARRIN_EMULATOR-}
machine=$("$compiler" -dumpmachine)
# The linker looks for the libraries that the library needs.
link=${sysroot:+--sysroot=$sysroot -Wl,-rpath-link,$sysroot/usr/lib/$machine -Wl,-rpath-link,$sysroot/lib/$machine}
version=$(sed -n 's/^project(quarrin VERSION \([0-9.]*\).*/\1/p' "$source/CMakeLists.txt")
work=$(mktemp -d /tmp/quarrin-package-XXXXXX) || exit 1
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM
failures=0

# check SENTENCE COMMAND...: runs the command, shows its output only when it fails.
check()
{
    sentence=$1
    shift
    if "$@" >"$work/log" 2>&1; then
        echo "ok: $sentence"
    else
        echo "FAILED: $sentence"
        cat "$work/log"
        failures=$((failures + 1))
    fi
}

# says STATUS PROGRAM: the program succeeds and reports that status of its command.
says()
{
    # shellcheck disable=SC2086 # the emulator has arguments
    $emulator "$2" 2>&1 >/dev/null | tee "$work/said" | grep -qx "status $1" || { cat "$work/said"; return 1; }
}

# ends_with STATUS PROGRAM: the exit status of a program without arguments.
ends_with()
{
    status=0
    # shellcheck disable=SC2086 # the emulator has arguments
    $emulator "$2" || status=$?
    [ "$status" -eq "$1" ]
}

# tells_usage EXAMPLE: without arguments it says how it is called.
tells_usage()
{
    ends_with 2 "$work/examples/$1" 2>"$work/said" && grep -q "^usage: $1 DEVICE MOUNTPOINT" "$work/said"
}

# limits_memory EXAMPLE: it tells FFmpeg how much it may take at once before it does anything else.
limits_memory()
{
    # shellcheck disable=SC2086 # the emulator has arguments
    LD_PRELOAD=$work/noted.so $emulator "$work/examples/$1" 2>&1 | grep -x "av_max_alloc $((256 << 20))"
}

notes_the_limit()
{
    printf '%s\n' '#include <stddef.h>' '#include <stdio.h>' \
        'extern "C" void av_max_alloc(size_t n) { fprintf(stderr, "av_max_alloc %lu\n", static_cast<unsigned long>(n)); }' \
        >"$work/noted.cpp"
    # shellcheck disable=SC2086 # flags are words
    "$compiler" -shared -fPIC "$work/noted.cpp" -o "$work/noted.so" $link
}

installed()
{
    for name in include/libquarrin.h include/bu_platform.h include/util_thread/util_thread.h \
        include/quarrin_platform.h include/libquarrin/export.h "$libdir/libquarrin.so" \
        "$libdir/libquarrin.so.${version%%.*}" "$libdir/libquarrin.so.$version" "$libdir/libquarrin_platform.a" "$libdir/pkgconfig/libquarrin.pc" \
        "$libdir/cmake/quarrin/quarrinConfig.cmake" "$libdir/cmake/quarrin/quarrinConfigVersion.cmake"; do
        [ -e "$prefix/$name" ] || { echo "$name is missing"; return 1; }
    done
}

# Each file belongs to one part, and the parts are all there is.
parts_add_up()
{
    : >"$work/parts"
    for part in runtime development tools; do
        cmake --install "$build" --prefix "$work/part_$part" --component "$part" || return 1
        [ ! -d "$work/part_$part" ] || (cd "$work/part_$part" && find . ! -type d) >>"$work/parts"
    done
    (cd "$prefix" && find . ! -type d) | sort >"$work/all"
    sort "$work/parts" | diff "$work/all" -
}

# A program that is linked already needs the library and the link of its soname.
runtime_is_the_library()
{
    (cd "$work/part_runtime" && find . ! -type d -printf '%f\n') | sort >"$work/parts"
    printf '%s\n' "libquarrin.so.${version%%.*}" "libquarrin.so.$version" | diff - "$work/parts"
}

headers_stand_alone()
{
    (cd "$prefix/include" && find . -name '*.h') >"$work/headers"
    while read -r header; do
        echo "#include \"$header\"" | "$compiler" -std=c++17 -Wall -Wextra -Wpedantic -Werror -fsyntax-only \
            -I"$prefix/include" -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64 -x c++ - || return 1
    done <"$work/headers"
}

headers_are_our_own()
{
    ! grep -rnE '#include *[<"](libav|libsw|SDL)' "$prefix/include"
}

says_version()
{
    strings -n 5 "$prefix/$libdir/libquarrin.so.$version" | grep -qxF "$version"
}

no_path_of_the_build()
{
    ! grep -rnF -e "$source/" -e "$build/" "$prefix/include" "$prefix/$libdir/cmake" "$prefix/$libdir/pkgconfig"
}

# The file of a library that the library names as needed.
path_of()
{
    if [ -n "$sysroot" ]; then
        find "$sysroot/usr/lib/$machine" "$sysroot/lib/$machine" -maxdepth 1 -name "$1" | head -n 1
    else
        ldd "$library" | awk -v name="$1" '$1 == name { print $3 } $1 ~ "/" name "$" { print $1 }'
    fi
}

# Every undefined symbol is looked up in the libraries that the library names as needed.
only_three_undefined()
{
    readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' >"$work/needed"
    : >"$work/provided"
    while read -r name; do
        nm -D --defined-only "$(path_of "$name")" >>"$work/provided" || return 1
    done <"$work/needed"
    awk '{ sub(/@.*/, "", $3); print $3 }' "$work/provided" | sort -u >"$work/names"
    nm -D --undefined-only "$library" | awk '$1 == "U" { sub(/@.*/, "", $2); print $2 }' | sort -u |
        comm -23 - "$work/names" >"$work/undefined"
    printf 'BSP_PrintLog\nBU_RunCmd\nUTIL_LOG_Print\n' | diff - "$work/undefined"
}

needs_what_it_says()
{
    readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' |
        grep -vE '^(libavformat|libavcodec|libavutil|libSDL2-2\.0|libSDL2_image-2\.0|libstdc\+\+|libgcc_s|libc|libm|ld-linux[^.]*)\.so' \
            >"$work/surplus"
    ! grep . "$work/surplus"
}

symbols_can_be_replaced()
{
    ! readelf -d "$library" | grep -w SYMBOLIC && ! readelf -Ws --dyn-syms "$library" | grep -w PROTECTED
}

prefix=$work/first
check "the build installs" cmake --install "$build" --prefix "$prefix"
libdir=$(cd "$prefix" && find . -name libquarrin.pc | sed 's|^\./||; s|/pkgconfig/.*||')
check "headers, libraries and package files are there" installed
check "runtime, development and tools are all of it" parts_add_up
check "runtime is the library alone" runtime_is_the_library

# What was installed can be moved.
mv "$work/first" "$work/second"
prefix=$work/second
library=$prefix/$libdir/libquarrin.so
check "nothing installed names the source or the build" no_path_of_the_build
check "every header compiles alone without a warning" headers_stand_alone
check "no header includes one of another library" headers_are_our_own
check "the soname is libquarrin.so.${version%%.*}" \
    sh -c "readelf -d '$library' | grep -qF 'soname: [libquarrin.so.${version%%.*}]'"
check "the library says its version" says_version
check "only the three functions of the utility layer are undefined" only_three_undefined
check "it needs FFmpeg, SDL and the language's libraries alone" needs_what_it_says
check "a host can replace its symbols" symbols_can_be_replaced

check "a CMake host configures" cmake -S "$here/consumer" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_FIND_ROOT_PATH="$prefix" \
    -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror"
check "a CMake host builds" cmake --build "$work/cmake"
check "the utility layer links before the library" says 3 "$work/cmake/platform_first"
check "the utility layer links behind the library" says 3 "$work/cmake/platform_last"
check "a host brings its own utility layer" says 42 "$work/cmake/own_layer"
check "a host's runner calls the package's" says 103 "$work/cmake/own_runner"

check "the examples configure alone" cmake -S "$source/examples" -B "$work/examples" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_FIND_ROOT_PATH="$prefix" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror"
check "the examples build alone" cmake --build "$work/examples"
for example in camera player own_layer; do
    check "$example runs and tells its usage" tells_usage "$example"
done
check "host runs" ends_with 2 "$work/examples/host"
check "a library that notes FFmpeg's limit builds" notes_the_limit
for example in host camera player own_layer; do
    check "$example limits what FFmpeg takes at once" limits_memory "$example"
done

"$here/test_find.sh" "$prefix" "$source" || failures=$((failures + 1))

PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
export PKG_CONFIG_PATH
rpath=-Wl,-rpath,$prefix/$libdir
check "pkg-config hands on the 64-bit definitions" sh -c \
    'pkg-config --cflags libquarrin | grep -q -e "-D_FILE_OFFSET_BITS=64.*-D_TIME_BITS=64"'
# shellcheck disable=SC2046,SC2086 # flags are words
check "a pkg-config host with its own utility layer builds" "$compiler" -std=c++17 "$here/consumer/host.cpp" \
    "$here/consumer/own_layer.cpp" -o "$work/pc_own" $link $(pkg-config --cflags --libs libquarrin) "$rpath"
check "it runs" says 42 "$work/pc_own"
# shellcheck disable=SC2046,SC2086 # flags are words
check "a pkg-config host of the utility layer builds" "$compiler" -std=c++17 "$here/consumer/host.cpp" \
    -o "$work/pc_platform" $link $(pkg-config --cflags --libs libquarrin_platform) "$rpath"
check "it runs too" says 3 "$work/pc_platform"

check "a host takes the sources into its build" cmake -S "$here/subdirectory" -B "$work/subdirectory" \
    -DQUARRIN_SOURCE="$source" -DCMAKE_TOOLCHAIN_FILE="$toolchain"

[ "$failures" -eq 0 ] || { echo "$failures checks failed"; exit 1; }
