#!/bin/sh
# clean_root.sh DIR: makes a minimal Debian in DIR/root, of the release and from the package sources of this machine, with
# what a host's programmer has there already: a compiler, CMake, pkg-config, completion in the shell. To be started as
# root. Ends with 77 when the packages cannot be had; a finished root is left as it is.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=tests/package/in_root.sh
. "$here/in_root.sh"

[ $# -eq 1 ] || { echo "usage: $0 DIR" >&2; exit 2; }
mkdir -p "$1"
place=$(cd "$1" && pwd)
root=$place/root
# shellcheck source=/dev/null
release=$(. /etc/os-release && echo "$VERSION_CODENAME")
programs="g++ cmake make pkg-config bash-completion"
# A change of this script makes a new root.
stamp="$(cksum <"$0") $release"
[ "$(cat "$place/complete" 2>/dev/null)" != "$stamp" ] || exit 0

cannot()
{
    echo "clean_root.sh: $1" >&2
    exit 77
}

# The lines of this machine's sources that have the release: address, release with its updates, component.
sources()
{
    # shellcheck disable=SC2016 # apt fills them in
    apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' 'Origin: Debian' |
        awk -v release="$release" '$3 == "main" && index($2, release) == 1' | sort -u
}

sources >"$place/sources"
if [ ! -s "$place/sources" ]; then
    apt-get update -q || true
    sources >"$place/sources"
fi
mirror=$(awk -v release="$release" '$2 == release { print $1; exit }' "$place/sources")
[ -n "$mirror" ] || cannot "this machine has no source of packages for $release"

work=$place/root.new
rm -rf "$place/complete" "$root" "$work"
# The address of a proxy, if apt has one.
eval "$(apt-config shell http_proxy Acquire::http::Proxy https_proxy Acquire::https::Proxy)"
[ -z "${http_proxy-}" ] || export http_proxy
[ -z "${https_proxy-}" ] || export https_proxy
# It mounts within the root: where there can be, in a view of its own, which ends with it.
apart=
! unshare --mount true 2>/dev/null || apart="unshare --mount"
if ! $apart debootstrap --variant=minbase "$release" "$work" "$mirror"; then
    # Another tool for the same: it fetches by apt itself, so that whatever apt reaches can be had.
    echo "clean_root.sh: debootstrap did not succeed, trying mmdebstrap" >&2
    rm -rf "$work"
    apt-get install -qy --no-install-recommends mmdebstrap || cannot "neither debootstrap nor mmdebstrap make a root"
    mmdebstrap --mode=root --variant=minbase "$release" "$work" "$mirror" ||
        cannot "neither debootstrap nor mmdebstrap make a root"
fi

sed 's/^/deb /' "$place/sources" >"$work/etc/apt/sources.list"
apt-config dump | grep -E '^Acquire::(http|https)::Proxy |^Acquire::Check-(Valid-Until|Date) ' \
    >"$work/etc/apt/apt.conf.d/00machine" || true
cp /etc/resolv.conf "$work/etc/resolv.conf"
# No package starts a service in here.
printf '#!/bin/sh\nexit 101\n' >"$work/usr/sbin/policy-rc.d"
chmod +x "$work/usr/sbin/policy-rc.d"
# The root lives for a test: nothing has to survive a power cut.
echo force-unsafe-io >"$work/etc/dpkg/dpkg.cfg.d/machine"
in_root "$work" apt-get update -q || cannot "the lists of packages cannot be had"
# shellcheck disable=SC2086 # a list of words
in_root "$work" apt-get install -qy --no-install-recommends $programs || cannot "the compiler cannot be had"
in_root "$work" apt-get clean
mv "$work" "$root"
echo "$stamp" >"$place/complete"
