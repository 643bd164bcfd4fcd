# shellcheck shell=sh disable=SC2034,SC2154 # variables of the scripts that source this, and for them
# deb_checks.sh: what the tests of the packages share. It is sourced with the folder of the packages, the sources, a
# folder to work in and the architecture as $1 to $4.

packages=$(cd "$1" && pwd)
source=$(cd "$2" && pwd)
mkdir -p "$3"
place=$(cd "$3" && pwd)
machine=$4
triplet=$(dpkg-architecture -a "$machine" -q DEB_HOST_MULTIARCH 2>/dev/null)
version=$(dpkg-parsechangelog -l "$source/debian/changelog" -S Version)
names="libquarrin1 libquarrin-dev quarrin-tools"
log=$place/check.log
passed=0 failed=0

# leave SKIPPED: ends with the sum.
leave()
{
    echo "$passed passed, $failed failed, $1 skipped"
    [ "$failed" -eq 0 ] || exit 1
    [ "$1" -eq 0 ] || exit 77
    exit 0
}

# check SENTENCE COMMAND...: shows the command's output only when it fails.
check()
{
    sentence=$1
    shift
    if "$@" >"$log" 2>&1; then
        echo "ok: $sentence"
        passed=$((passed + 1))
    else
        echo "FAILED: $sentence"
        tail -n 60 "$log"
        failed=$((failed + 1))
        return 1
    fi
}

# file_of NAME: the package's file.
file_of()
{
    echo "$packages/${1}_${version}_$machine.deb"
}

# unpack DIR: every package into a folder of its name.
unpack()
{
    rm -rf "$1"
    mkdir -p "$1"
    for name in $names; do
        dpkg-deb -x "$(file_of "$name")" "$1/$name" || return 1
    done
}

# From the README: the host, the CMake lines that link it, and the compiler's line.
readme_host()
{
    awk '/^```cpp$/ { on = 1; next } /^```$/ { on = 0 } on' "$source/README.md"
}

readme_cmake()
{
    awk '/^```cmake$/ { on = 1; next } /^```$/ { on = 0 } on' "$source/README.md"
}

readme_compile()
{
    sed -n 's/^    \(g++ .*pkg-config.*\)/\1/p' "$source/README.md"
}

# ---- recordings, read by the packaged tool: the function `tool` of the script runs it

# video_frames STORAGE FILE: how many pictures it reads.
video_frames()
{
    tool play "$2" --storage "$1" --frames | grep -c ' type=video '
}

# recorded STORAGE LEAST: one finished recording with the README's comment and every picture of the clip
# $clips/rec/$clip, which has at least so many: a busy machine gives fewer than there is time for, and with 40 ms for
# each the host's file has to be longer than the five seconds below which it is removed.
recorded()
{
    tool list --storage "$1" --json >"$place/list.json" || return 1
    cat "$place/list.json"
    [ "$(grep -c '"name"' "$place/list.json")" -eq 1 ] || return 1
    grep -q '"comment": "front"' "$place/list.json" && grep -q '"in_progress": false' "$place/list.json" || return 1
    name=$(sed -n 's/.*"name": "\(.*\)".*/\1/p' "$place/list.json")
    got=$(video_frames "$1" "$name")
    wanted=$(video_frames "$clips" "$clip")
    echo "$got of $wanted pictures"
    [ "$wanted" -ge "$2" ] && [ "$got" -eq "$wanted" ]
}
