#!/bin/sh
# deb.sh [armhf]: builds the Debian packages and tests them. Those for this machine go to build/deb; their content is
# looked into, and they are installed in a clean root that stays in build/deb-root for the next time. Those for 32-bit ARM
# go to build/deb-armhf; their content is looked into, and their programs run under an emulator. The last line counts the
# checks; the script ends with 77 when something that the tests take could not be had, root among it.
set -eu
unset CDPATH
cd "$(dirname "$0")/.."
. cmake/steps.sh

machine=${1-}
part=deb${machine:+-$machine}
out=build/$part
tree=

# What is built is a copy without anything that other builds left.
build()
{
    began=$(date +%s)
    say "building the packages in $out"
    rm -rf "$out"
    mkdir -p "$out/work/quarrin"
    tar --exclude=./build --exclude='./build-*' --exclude=./.git -cf - . | tar -C "$out/work/quarrin" -xf -
    # By this the packages for two machines are known to be of the same sources.
    (cd "$out/work/quarrin" && find . -type f -exec cksum '{}' + | sort | cksum) >"$out/sources.cksum"
    # Nothing of the caller's environment gets into the packages.
    # shellcheck disable=SC2086 # options or none
    if ! (cd "$out/work/quarrin" && env -i PATH="$PATH" HOME="${HOME:-/}" LC_ALL=C.UTF-8 DEB_BUILD_OPTIONS="parallel=$jobs" \
        ${tree:+QUARRIN_TREE="$tree"} dpkg-buildpackage ${machine:+-a$machine -d} -b -us -uc) \
        >"$out/build.log" 2>&1 </dev/null; then
        tail -n 60 "$out/build.log" >&2
        die "the packages could not be built; all of it is in $out/build.log"
    fi
    find "$out/work" -maxdepth 1 -type f -exec mv '{}' "$out/" ';'
    rm -rf "$out/work"
    say "built in $(($(date +%s) - began)) s:"
    find "$out" -name '*.deb' ! -name '*-dbgsym_*' -printf '    %p\n' | sort
}

# run_test SCRIPT ARGUMENT...: runs one script of checks and adds its last line to the sum.
run_test()
{
    status=0
    "$@" >"$out/test.log" || status=$?
    case $status in
    0 | 77) ;;
    *) broken="$broken $(basename "$1")" ;;
    esac
    sed '$d' "$out/test.log"
    counts=$(tail -n 1 "$out/test.log" | sed -n 's/^\([0-9]*\) passed, \([0-9]*\) failed, \([0-9]*\) skipped$/\1 \2 \3/p')
    # A script that broke off without its sum is one failure.
    # shellcheck disable=SC2086 # three words
    set -- ${counts:-0 1 0}
    passed=$((passed + $1)) failed=$((failed + $2)) skipped=$((skipped + $3))
}

command -v dpkg-query >/dev/null || die "packages of Debian are built on Debian"
mkdir -p build
case $machine in
"")
    # debian/control says what the build takes.
    # shellcheck disable=SC2046 # a list of words
    need_packages build-essential debhelper lintian debootstrap \
        $(sed -n '/^Build-Depends:/,/^[A-Z]/ s/^ \([-+.a-z0-9]*\).*/\1/p' debian/control | grep -v debhelper-compat)
    build
    say "testing them; the clean root is in build/deb-root"
    machine=$(dpkg-architecture -q DEB_HOST_ARCH)
    run_test tests/package/test_deb_content.sh "$out" . build/deb-root "$machine"
    run_test tests/package/test_deb.sh "$out" . build/deb-root "$machine"
    ;;
armhf)
    # shellcheck disable=SC2086 # a list of words
    need_packages build-essential debhelper lintian $build_tools
    cmake/armhf.sh --prepare
    tree=$PWD/build/armhf-root
    build
    say "testing them under the emulator"
    run_test tests/package/test_deb_content.sh "$out" . "$out/test" armhf
    run_test tests/package/test_deb_armhf.sh "$out" . "$out/test" armhf "$tree" build/deb
    ;;
*) die "there are packages for this machine and for armhf, not for $machine" ;;
esac
summary || exit 1
[ "$skipped" -eq 0 ] || exit 77
