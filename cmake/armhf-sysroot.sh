#!/bin/sh
# armhf-sysroot.sh DIR: makes a tree of Debian's armhf packages to compile, link and run 32-bit ARM programs against.
#
# The packages are fetched with an apt state of its own, from wherever this machine's apt fetches, and are unpacked
# without being installed. So neither root nor a foreign architecture of dpkg is needed, and the packages' versions need
# not be those of this machine. Ends with 77 when the packages cannot be had; a finished tree is left as it is.
set -eu

[ $# -eq 1 ] || { echo "usage: $0 DIR" >&2; exit 2; }
mkdir -p "$(dirname "$1")"
tree=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
triplet=arm-linux-gnueabihf
# The cross compiler reads the standard library of the tree: it has to be of its own version.
gcc=$($triplet-g++ -dumpversion)
packages="libc6-dev libstdc++-${gcc%%.*}-dev libavformat-dev libavcodec-dev libavutil-dev libswscale-dev
    libswresample-dev libsdl2-dev libsdl2-image-dev libgtest-dev libgmock-dev libcli11-dev nlohmann-json3-dev"
# A change of this script makes a new tree.
stamp=$(cksum <"$0") version=$gcc
[ "$(cat "$tree/.complete" 2>/dev/null)" != "$stamp $version" ] || exit 0

work=$tree.new
rm -rf "$work" "$tree"
mkdir -p "$work/lists/partial" "$work/archives/partial" "$work/tree"
trap 'rm -rf "$work"' EXIT
: >"$work/status"

# fetch COMMAND...: apt-get for armhf, with nothing of this machine but its sources and keys.
fetch()
{
    DEBIAN_FRONTEND=noninteractive apt-get -q -y -o APT::Architecture=armhf -o APT::Architectures=armhf \
        -o Dir::State="$work" -o Dir::State::lists="$work/lists" -o Dir::State::status="$work/status" \
        -o Dir::Cache="$work" -o Dir::Cache::archives="$work/archives" \
        -o Dir::Cache::pkgcache= -o Dir::Cache::srcpkgcache= \
        -o Debug::NoLocking=1 -o APT::Sandbox::User=root -o Acquire::Languages=none -o Acquire::Retries=2 "$@"
}

# A source without armhf is no failure as long as the others have all packages.
fetch update || echo "armhf-sysroot.sh: some of the sources could not be read; trying with the others" >&2
# shellcheck disable=SC2086 # a list of words
if ! fetch --no-install-recommends --download-only install $packages; then
    echo "armhf-sysroot.sh: the armhf packages cannot be had" >&2
    exit 77
fi
find "$work/archives" -maxdepth 1 -name '*.deb' -print0 |
    xargs -0 -P "$(nproc)" -I '{}' dpkg-deb -x '{}' "$work/tree"
# What these packages say about their libraries; where dpkg-shlibdeps looks for it in a tree.
mkdir "$work/tree/DEBIAN"
for package in "$work"/archives/*.deb; do
    for file in symbols shlibs; do
        dpkg-deb --ctrl-tarfile "$package" | tar -xOf - "./$file" >>"$work/tree/DEBIAN/$file" 2>/dev/null || true
    done
done

# The emulator looks into the tree first for every absolute path: what only packages need when they are installed goes,
# or a program would find this tree's /tmp, /etc and time zones in place of the machine's.
cd "$work/tree"
find . -mindepth 1 -maxdepth 1 ! -name lib ! -name usr ! -name DEBIAN -exec rm -rf {} +
find usr -mindepth 1 -maxdepth 1 ! -name lib ! -name include ! -name share ! -name src -exec rm -rf {} +
find usr/share -mindepth 1 -maxdepth 1 ! -name pkgconfig ! -name cmake ! -name CLI11 -exec rm -rf {} +
# Absolute links point into the tree.
find . -type l -lname '/*' -printf '%P %l\n' | while read -r link target; do
    [ ! -e "./$target" ] || ln -sfnr "./$target" "$link"
done
cd - >/dev/null
echo "$stamp $version" >"$work/tree/.complete"
mv "$work/tree" "$tree"
