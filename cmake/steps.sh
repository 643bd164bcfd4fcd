# shellcheck shell=sh
# steps.sh: what `run` and the scripts that it calls do alike: words, packages, builds, tests and their sum. It is sourced
# by scripts that stand in the project's folder, before they set `part` (a word that opens their lines) and the packages
# that they need.

jobs=$(nproc)
start=$(date +%s)
part=
passed=0 failed=0 skipped=0 broken=

# What every build and every run of the tests calls; the libraries differ with the target.
# shellcheck disable=SC2034 # for the scripts that source this
build_tools="cmake ninja-build pkg-config"
# shellcheck disable=SC2034
test_tools="ffmpeg git mount util-linux fdisk e2fsprogs dosfstools abigail-tools busybox|busybox-static
    python3"

say()
{
    printf '==> %s%s\n' "${part:+$part: }" "$*"
}

die()
{
    printf './run: %s%s\n' "${part:+$part: }" "$*" >&2
    exit 1
}

# ---- packages

# One of the names, separated by |, is installed.
has_package()
{
    for name in $(printf '%s' "$1" | tr '|' ' '); do
        case $(dpkg-query -W -f '${db:Status-Abbrev}' "$name" 2>/dev/null) in
        ?i*) return 0 ;;
        esac
    done
    return 1
}

# install_packages PACKAGE...: installs those that are missing. Without success, `trouble` holds the reason.
install_packages()
{
    missing=
    for package in "$@"; do
        has_package "$package" || missing="$missing ${package%%|*}"
    done
    if [ -z "$missing" ]; then
        say "packages: all there"
        return
    fi
    as_root=
    if [ "$(id -u)" -ne 0 ]; then
        trouble="these packages are missing, and there is neither root nor sudo to install them:$missing"
        command -v sudo >/dev/null || return 1
        as_root=sudo
    fi
    say "packages: installing$missing"
    mkdir -p build
    trouble="the packages could not be installed; all of it is in build/packages.log"
    # The lists may be old; when they cannot be renewed, the packages may be there all the same.
    # shellcheck disable=SC2086 # sudo may be absent, and the packages are words
    { { $as_root env DEBIAN_FRONTEND=noninteractive apt-get update -q || true; } &&
        $as_root env DEBIAN_FRONTEND=noninteractive apt-get install -qy --no-install-recommends $missing; } \
        >build/packages.log 2>&1 </dev/null || { tail -n 20 build/packages.log >&2; return 1; }
}

need_packages()
{
    if ! command -v dpkg-query >/dev/null; then
        say "no Debian packages here: taking for granted that these are installed in some way:" "$@"
        return
    fi
    install_packages "$@" || die "$trouble"
}

# ---- building

check=build/check
targets= # of the next build; all when empty

# build_in DIR OPTION...: configures and builds; shows the compiler's words only when it fails.
build_in()
{
    directory=$1
    shift
    mkdir -p "$directory"
    if ! cmake -S . -B "$directory" -G Ninja "$@" >"$directory/configure.log" 2>&1; then
        cat "$directory/configure.log" >&2
        return 1
    fi
    # shellcheck disable=SC2086 # a list of words
    if ! ninja -C "$directory" -k 0 -j "$jobs" $targets >"$directory/build.log" 2>&1; then
        grep -vE '^\[[0-9]+/[0-9]+\] (Building|Linking|Creating)' "$directory/build.log" | head -n 200 >&2
        return 1
    fi
}

pass_directory()
{
    echo "$check/$1"
}

# build_pass NAME [TARGET...]: builds one variant of the library with its tests, or some of its targets.
build_pass()
{
    pass=$1
    shift
    targets=$*
    case $pass in
    native)
        set -- -DCMAKE_BUILD_TYPE=Release -DQUARRIN_BUILD_BENCHMARKS=ON
        ;;
    asan | tsan)
        sanitizers=thread
        [ "$pass" = tsan ] || sanitizers=address,undefined
        # Little optimisation and line numbers alone: enough for a readable report, and quick to compile.
        set -- -DCMAKE_BUILD_TYPE=Sanitize -DCMAKE_CXX_FLAGS="-O1 -g1" -DQUARRIN_SANITIZE="$sanitizers" \
            -DQUARRIN_BUILD_BENCHMARKS=OFF
        ;;
    *) die "there is no pass \"$pass\"" ;;
    esac
    status=0
    build_in "$(pass_directory "$pass")" -DQUARRIN_WERROR=ON -DQUARRIN_BUILD_TESTS=ON -DQUARRIN_BUILD_TOOLS=ON "$@" ||
        status=1
    targets=
    return "$status"
}

# ---- tests

# Adds up one pass: programs of GoogleTest by their own reports, other tests (and programs that broke off) as one each.
# Prints "PASSED FAILED SKIPPED".
count_pass()
{
    sed -n 's/.*<testcase name="\([^"]*\)".*status="\([a-z]*\)".*/\1 \2/p' "$1/ctest.xml" | while read -r name status; do
        report=$1/results/test_$name.xml
        ok=1 bad=0 left=0
        if [ -s "$report" ]; then
            bad=$(sed -n 's/^<testsuites .* failures="\([0-9]*\)".*/\1/p' "$report")
            left=$(grep -c 'result="skipped"' "$report") || true
            ok=$(($(sed -n 's/^<testsuites tests="\([0-9]*\)".*/\1/p' "$report") - bad - left))
        elif [ "$status" = notrun ] || [ "$status" = disabled ]; then
            ok=0 left=1
        elif [ "$status" = fail ]; then
            ok=0
        fi
        # A program may fail as a whole though its tests passed: by a leak that is found at its end.
        [ "$status" != fail ] || [ "$bad" -gt 0 ] || bad=1
        echo "$ok $bad $left"
    done | awk '{ p += $1; f += $2; s += $3 } END { printf "%d %d %d\n", p, f, s }'
}

# The tests that a pass skipped, those of GoogleTest with their reasons and other ones, each on a line.
skipped_tests()
{
    cat "$1"/results/*.xml 2>/dev/null | sed -n '/<testcase .*result="skipped"/{
        s/.*name="\([^"]*\)".*classname="\([^"]*\)".*/\2.\1/
        N
        s/\n.*<skipped message="[^"&]*\(&#x0A;\)*\([^"]*\)".*/: \2/
        s/\n.*//
        p
    }'
    sed -n 's/.*<testcase name="\([^"]*\)".*status="\(notrun\|disabled\)".*/\1/p' "$1/ctest.xml"
}

# Root on a machine with loop devices: there is all that the tests can need.
may_skip_nothing()
{
    [ "$(id -u)" -eq 0 ] && [ -e /dev/loop-control ]
}

# The sanitizers' address layout does not fit every kernel's random one; where it can be switched off, it is.
fixed_addresses()
{
    if setarch "$(uname -m)" -R true 2>/dev/null; then
        setarch "$(uname -m)" -R "$@"
    else
        "$@"
    fi
}

# ctest cuts what a failed test printed; nothing that a test prints is as long as this.
whole=1000000000

# show_failures LOG: every failed assertion and every report of a sanitizer in ctest's output, whole, and the last lines of
# each failed program.
show_failures()
{
    sed '/^Test project/d; /^ *Start /d' "$1" | awk -f cmake/failures.awk
}

# test_in NAME DIR: runs all tests of a finished build. Adds to passed, failed, skipped and broken.
test_in()
{
    name=$1 directory=$2
    built=$(date +%s)
    say "$name: running the tests, $jobs programs at a time"
    rm -rf "$directory/results" "$directory/ctest.xml"
    GTEST_OUTPUT=xml:$PWD/$directory/results/ GTEST_BRIEF=1 fixed_addresses ctest --test-dir "$directory" -j "$jobs" \
        --output-on-failure --test-output-size-failed "$whole" --output-junit "$PWD/$directory/ctest.xml" >"$directory/test.log" 2>&1 ||
        broken="$broken $name-tests"
    [ -s "$directory/ctest.xml" ] || { cat "$directory/test.log" >&2; return; }
    # shellcheck disable=SC2046 # three words
    set -- $(count_pass "$directory")
    passed=$((passed + $1)) failed=$((failed + $2)) skipped=$((skipped + $3))
    case $broken in
    *" $name-tests"*)
        show_failures "$directory/test.log" >&2
        say "$name: all that the failed tests printed stands in $directory/test.log"
        ;;
    esac
    say "$name: tested in $(($(date +%s) - built)) s: $1 passed, $2 failed, $3 skipped"
    skipped_tests "$directory" | sed 's/^/    skipped: /'
}

# ---- the end

# The last line of every part that tests; .ci/run adds these lines up.
summary()
{
    [ -z "$broken" ] || say "failed:$broken"
    say "took $(($(date +%s) - start)) s in all"
    echo "$passed passed, $failed failed, $skipped skipped"
    [ -z "$broken" ] && [ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
}
