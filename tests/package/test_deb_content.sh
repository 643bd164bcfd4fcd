#!/bin/sh
# test_deb_content.sh PACKAGES SOURCE DIR ARCHITECTURE: looks into the three packages of the folder PACKAGES. One line
# per check; the last line counts them.
# shellcheck disable=SC2317 # functions that check calls
set -u
unset CDPATH
# shellcheck source=tests/package/deb_checks.sh
. "$2/tests/package/deb_checks.sh"
unpacked=$place/unpacked

# Left out: what a package is told that is uploaded to Debian for the first time. lintian leaves files in its TMPDIR.
lintian_is_silent()
{
    rm -rf "$place/lintian"
    mkdir "$place/lintian" || return 1
    status=0
    TMPDIR=$place/lintian lintian --allow-root --display-info --fail-on error,warning,info \
        --suppress-tags initial-upload-closes-no-bugs "$packages"/*.changes || status=$?
    rm -rf "$place/lintian"
    return "$status"
}

version_is_the_projects()
{
    grep -x "project(quarrin VERSION ${version%-*} .*" "$source/CMakeLists.txt"
}

dependencies_are_right()
{
    for name in $names; do
        dpkg-deb -f "$(file_of "$name")" Package Architecture Multi-Arch Depends
    done >"$place/control"
    cat "$place/control"
    for library in libavformat libavcodec libavutil libsdl2-2 libsdl2-image libstdc++ libc6; do
        sed -n 1,4p "$place/control" | grep -q "^Depends:.*$library" || return 1
    done
    sed -n 5,8p "$place/control" | grep -qx "Depends: libquarrin1 (= $version), libavutil-dev (>= 7:5.1)" &&
        sed -n 9,12p "$place/control" | grep -q "^Depends:.* libquarrin1 (>= ${version%-*})"
}

# The library's files stand where those of another architecture can stand beside them.
lies_by_architecture()
{
    (cd "$unpacked" && find libquarrin1 libquarrin-dev -path '*/usr/lib/*' ! -type d) >"$place/files"
    ! grep -v "/usr/lib/$triplet/" "$place/files" && grep "/libquarrin.so.1$" "$place/files"
}

names_no_place_of_the_build()
{
    [ -d "$unpacked/libquarrin-dev" ] && ! grep -rF -e "$source/" -e "$packages/" "$unpacked"
}

check "lintian has nothing to say" lintian_is_silent
check "the version is the project's" version_is_the_projects
check "the packages depend on what they link, and on one another" dependencies_are_right
check "the packages unpack" unpack "$unpacked"
check "libraries and package files lie in the folder of the architecture" lies_by_architecture
check "nothing in them names the place of the build" names_no_place_of_the_build
rm -rf "$unpacked"
leave 0
