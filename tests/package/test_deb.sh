#!/bin/sh
# test_deb.sh PACKAGES SOURCE DIR ARCHITECTURE: installs the three packages of the folder PACKAGES into a fresh copy of
# the clean root below DIR, compiles the README's host against them in the README's two ways, runs both on a recording
# that the packaged tool made, and removes the packages without a trace. As root. One line per check; the last line
# counts them. Ends with 77 when no root or no package can be fetched.
# shellcheck disable=SC2016,SC2317 # single quotes for an inner shell; functions that check calls
set -u
unset CDPATH
# shellcheck source=tests/package/deb_checks.sh
. "$2/tests/package/deb_checks.sh"
# shellcheck source=tests/package/in_root.sh
. "$2/tests/package/in_root.sh"

root=$place/try
inside=/srv/quarrin # where the test works within the root

skip()
{
    cat >&2 <<END
############################################################
SKIPPED: the packages were not tested in a clean root
$1
############################################################
END
    leave 1
}

work_in_root()
{
    # shellcheck disable=SC2016 # for the inner shell
    in_root "$root" sh -eu -c 'cd "$0" && eval "$1"' "$inside" "$1"
}

# Every file of the root: kind, rights, owner, target of a link, and the sum of its content. Left out is what dpkg, apt
# and ldconfig keep about their work, debconf's copies of the last state but one, and the folder that this test works
# in.
listing()
{
    (cd "$root" && find . -path "./srv/quarrin" -prune -o -path ./proc -prune \
        -o -path ./var/lib/dpkg -prune -o -path ./var/lib/apt -prune -o -path ./var/cache/apt -prune \
        -o -path ./var/log/dpkg.log -o -path ./var/log/alternatives.log -o -path ./var/log/apt -prune \
        -o -path ./etc/ld.so.cache -o -path ./var/cache/ldconfig -prune -o -path './var/cache/debconf/*-old' \
        -o -printf '%p %y %m %U:%G %l\n' -type f -exec md5sum '{}' +) | sort
}

installed()
{
    in_root "$root" dpkg-query -W -f '${Package} ${Version} ${Status}\n' | sort
}

libraries()
{
    in_root "$root" ldconfig -p | sort
}

have_version()
{
    for name in $names; do
        in_root "$root" dpkg-query -W -f '${Package} ${Version} ${Status}\n' "$name" |
            grep -x "$name $version install ok installed" || return 1
    done
}

# A program that runs in the root, and what it links.
links_the_package()
{
    in_root "$root" ldd "$inside/$1" >"$place/ldd"
    cat "$place/ldd"
    grep -qF "libquarrin.so.1 => /lib/$triplet/libquarrin.so.1" "$place/ldd" && ! grep -q 'not found' "$place/ldd"
}

completes()
{
    in_root "$root" bash -c '. /usr/share/bash-completion/bash_completion; _completion_loader quarrin
        complete -p quarrin && COMP_WORDS=(quarrin record --f) COMP_CWORD=2 &&
            _quarrin && test "${COMPREPLY[*]}" = --format'
}

has_manual_page()
{
    gzip -dc "$root/usr/share/man/man1/quarrin.1.gz" | grep "^\.TH QUARRIN 1 .*quarrin ${version%-*}"
}

from_readme()
{
    mkdir -p "$root$inside/cmake"
    readme_host | tee "$root$inside/host.cpp" >"$root$inside/cmake/host.cpp"
    readme_cmake >"$root$inside/cmake/CMakeLists.txt"
    readme_compile >"$root$inside/compile"
    cmp "$root$inside/host.cpp" "$source/examples/host.cpp" &&
        grep -q find_package "$root$inside/cmake/CMakeLists.txt" && [ "$(wc -l <"$root$inside/compile")" -eq 1 ]
}

tool()
{
    in_root "$root" quarrin "$@"
}

no_name_of_ours()
{
    (cd "$root" && find . -path ./srv/quarrin -prune -o -path ./proc -prune -o -iname '*quarrin*' -print) >"$place/left"
    cat "$place/left"
    [ ! -s "$place/left" ] &&
        ! in_root "$root" dpkg-query -W 'libquarrin*' 'quarrin*' && ! libraries | grep quarrin
}

as_before()
{
    "$1" >"$place/$1.after" && diff "$place/$1.before" "$place/$1.after"
}

[ "$(id -u)" -eq 0 ] || skip "root is needed for that: start it as root"
began=$(date +%s)
status=0
"$source/tests/package/clean_root.sh" "$place" >"$place/clean_root.log" 2>&1 </dev/null || status=$?
[ "$status" -eq 0 ] || tail -n 20 "$place/clean_root.log" >&2
[ "$status" -ne 77 ] || skip "the root cannot be made; what was tried is in $place/clean_root.log"
check "a clean root is there (after $(($(date +%s) - began)) s)" [ "$status" -eq 0 ] || leave 0

rm -rf "$root"
trap 'rm -rf "$root"' EXIT
trap 'exit 1' HUP INT TERM
cp -a "$place/root" "$root" || { check "the clean root can be copied" false; leave 0; }
mkdir -p "$root$inside/packages" "$place/archives"
for name in $names; do
    cp "$(file_of "$name")" "$root$inside/packages/" || { check "there is a package $name" false; leave 0; }
done
for kind in listing installed libraries; do
    "$kind" >"$place/$kind.before"
done
check "the listing of the root is a listing" [ "$(wc -l <"$place/listing.before")" -gt 5000 ]

find "$place/archives" -name '*.deb' -exec cp '{}' "$root/var/cache/apt/archives/" ';'
in_root "$root" apt-get update -q >"$log" 2>&1 || { cat "$log" >&2; skip "the lists of packages cannot be had"; }
apt="apt-get -qy --no-install-recommends install"
debs=
for name in $names; do
    debs="$debs $inside/packages/${name}_${version}_$machine.deb"
done
# shellcheck disable=SC2086 # lists of words
check "apt finds everything that the packages depend on" in_root "$root" $apt -s $debs || leave 0
# shellcheck disable=SC2086
if ! in_root "$root" $apt --download-only $debs >"$log" 2>&1; then
    tail -n 20 "$log" >&2
    skip "the packages they depend on cannot be had"
fi
find "$root/var/cache/apt/archives" -maxdepth 1 -name '*.deb' -exec cp -u '{}' "$place/archives/" ';'
# shellcheck disable=SC2086
check "apt installs them" in_root "$root" $apt $debs || leave 0
check "they are installed in version $version" have_version
# shellcheck disable=SC2086 # a list of words
check "their files are as they were packed" in_root "$root" dpkg --verify $names
check "the tool runs and says its version" work_in_root "quarrin --version | grep -x '${version%-*}'"
check "library and tool are hardened" "$source/tests/abi/check_hardening.sh" \
    "$root/usr/lib/$triplet/libquarrin.so.${version%%.*}" "$root/usr/bin/quarrin"
check "its manual page is there, of this version" has_manual_page
check "bash finds its completion, and it completes" completes

check "the README has a host, which is the example, and two ways to link it" from_readme
check "the README's compiler line compiles the host" work_in_root 'sh -eu compile'
check "the README's CMake lines compile the host" work_in_root \
    'cmake -S cmake -B built && cmake --build built && cp built/host host-cmake'
check "the one takes the library from the package" links_the_package host
check "so does the other" links_the_package host-cmake
check "the tool records a clip" work_in_root 'quarrin record test --format ts --duration 10 --storage clips'
path=$(find "$root$inside/clips/rec" -name '*.ts')
clips=$inside/clips
clip=$(basename "$path")
check "the clip is one file" [ -f "$path" ]
check "both hosts record it again" work_in_root "mkdir one two && { ./host /dev/null $inside/one clips/rec/$clip & } &&
    ./host-cmake /dev/null $inside/two clips/rec/$clip && wait \$!"
check "the recording of the first has every picture" recorded "$inside/one" 150
check "so has the recording of the second" recorded "$inside/two" 150

# shellcheck disable=SC2086 # a list of words
check "apt purges them" in_root "$root" apt-get -qy purge $names
check "no file, folder, package or library of their name is left" no_name_of_ours
check "apt removes what came with them" in_root "$root" apt-get -qy autoremove --purge
check "the packages of the root are those of before" as_before installed
check "the libraries that the loader knows are those of before" as_before libraries
check "the files of the root are those of before" as_before listing
leave 0
