#!/bin/sh
# deb.sh: builds the Debian packages for this machine in build/deb, and tests them: their content, then in a clean root
# that stays in build/deb-root for the next time. The last line counts the checks; the script ends with 77 when the clean
# root could not be had, or for lack of root.
set -eu
unset CDPATH
cd "$(dirname "$0")/.."
. cmake/steps.sh

part=deb
out=build/deb

# What is built is a copy without anything that other builds left.
build()
{
    began=$(date +%s)
    say "building the packages in $out"
    rm -rf "$out"
    mkdir -p "$out/work/quarrin"
    tar --exclude=./build --exclude='./build-*' --exclude=./.git -cf - . | tar -C "$out/work/quarrin" -xf -
    # Nothing of the caller's environment gets into the packages.
    if ! (cd "$out/work/quarrin" && env -i PATH="$PATH" HOME="$HOME" LC_ALL=C.UTF-8 DEB_BUILD_OPTIONS="parallel=$jobs" \
        dpkg-buildpackage -b -us -uc) >"$out/build.log" 2>&1 </dev/null; then
        tail -n 60 "$out/build.log" >&2
        die "the packages could not be built; all of it is in $out/build.log"
    fi
    find "$out/work" -maxdepth 1 -type f -exec mv '{}' "$out/" ';'
    rm -rf "$out/work"
    say "built in $(($(date +%s) - began)) s:"
    find "$out" -name '*.deb' ! -name '*-dbgsym_*' -printf '    %p\n' | sort
}

command -v dpkg-query >/dev/null || die "packages of Debian are built on Debian"
mkdir -p build
# debian/control says what the build takes.
# shellcheck disable=SC2046 # a list of words
need_packages build-essential debhelper lintian debootstrap $(sed -n '/^Build-Depends:/,/^[A-Z]/ s/^ \([-+.a-z0-9]*\).*/\1/p' \
    debian/control | grep -v debhelper-compat)
build
say "testing them; the clean root is in build/deb-root"
status=0
tests/package/test_deb.sh "$out" . build/deb-root >"$out/test.log" || status=$?
sed '$d' "$out/test.log"
say "took $(($(date +%s) - start)) s in all"
tail -n 1 "$out/test.log"
exit "$status"
