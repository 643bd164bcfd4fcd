#!/bin/sh
# test_texts.sh TOOL MANPAGE SOURCE: the manual page and the completions know exactly the options that the tool's --help
# prints, and the completion of bash completes. One line per check.
set -u

tool=$1
page=$2
completion=$3/tools/completion
here=$3/tests/tools
work=$(mktemp -d /tmp/quarrin-texts-XXXXXX) || exit 1
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM
failures=0

# same SENTENCE: $work/wanted and $work/got have the same lines, and some.
same()
{
    sort -u "$work/wanted" >"$work/wanted.sorted"
    sort -u "$work/got" >"$work/got.sorted"
    if [ -s "$work/wanted" ] && diff "$work/wanted.sorted" "$work/got.sorted" >"$work/log"; then
        echo "ok: $1"
    else
        echo "FAILED: $1 (< is missing in it, > is too much)"
        cat "$work/log"
        failures=$((failures + 1))
    fi
}

# Every option of a text, a line each.
options()
{
    grep -oE -e '(^|[^-a-z])--?[a-z][-a-z]*' | sed 's/^[^-]*//'
}

# What --help says behind a subcommand, or alone.
help_options()
{
    # shellcheck disable=SC2086 # a subcommand or none
    "$tool" $1 --help | sed -n '/^Options:/,/^Subcommands:/p' | grep '^  -' | cut -c -28 | options
}

help_values()
{
    "$tool" "$1" --help | sed -n "s/^  $2 .*{\\(.*\\)}.*/\\1/p" | tr ',' '\n'
}

# The options that the page describes below a heading: on the line behind .TP.
page_options()
{
    awk -v heading="$1" '
        /^\.S[SH]/ { here = index($0, heading) > 0 }
        tag && here { gsub(/\\-/, "-"); gsub(/\\f./, ""); print }
        { tag = $0 == ".TP" }' "$page" | options
}

offers()
{
    bash "$here/complete.bash" "$completion/quarrin.bash" quarrin "$@"
}

# completes SENTENCE WANTED WORD...: WANTED is a text of lines.
completes()
{
    sentence=$1
    printf '%s\n' "$2" >"$work/wanted"
    shift 2
    offers "$@" >"$work/got" 2>&1
    same "$sentence"
}

"$tool" --help | sed '1,/^Subcommands:/d' | awk 'NF { print $1 }' >"$work/subcommands"
cp "$work/subcommands" "$work/wanted"
sed -n 's/^\.SS "quarrin \([a-z]*\) .*/\1/p' "$page" >"$work/got"
same "the page has a section for every subcommand"
offers '' >"$work/got"
same "bash completes the subcommands"
sed -n "s/.*-n \$needs -f -a \([a-z]*\) .*/\1/p" "$completion/quarrin.fish" >"$work/got"
same "fish completes the subcommands"
sed -n 's/^    \([a-z][a-z]*\))$/\1/p' "$completion/_quarrin" >"$work/got"
same "zsh completes the subcommands"

help_options "" >"$work/wanted"
page_options '.SH OPTIONS' >"$work/got"
same "the page has the options of the program"
offers - >"$work/got"
same "bash completes the options of the program"

while read -r command; do
    help_options "$command" >"$work/wanted"
    { page_options 'Of all subcommands' && page_options "\"quarrin $command "; } >"$work/got"
    same "the page has the options of $command"
    offers "$command" - >"$work/got"
    same "bash completes the options of $command"
    grep -e '^--' "$work/wanted" >"$work/long"
    mv "$work/long" "$work/wanted"
    sed -n "/^for command/,/^end/p; /subcommand_from $command'/,/^\$/p" "$completion/quarrin.fish" |
        sed -n 's/.* -l \([-a-z]*\).*/--\1/p' | grep -vx -e '--seen' >"$work/got"
    same "fish completes the options of $command"
    { sed -n '/common=(/,/^    )/p' "$completion/_quarrin" && sed -n "/^    $command)/,/;;/p" "$completion/_quarrin"; } |
        sed 's/\[[^]]*\]//' | options | grep -e '^--' >"$work/got"
    same "zsh completes the options of $command"
done <"$work/subcommands"

mkdir -p "$work/card/rec" "$work/elsewhere"
first='2024-03-01-08-15-00.To.2024-03-01-08-20-00.[front door].mkv'
second='2024-03-01-08-20-00.To.unknown.ts'
: >"$work/card/rec/$first"
: >"$work/card/rec/$second"
: >"$work/card/rec/notes.txt"
: >"$work/clip.mkv"
cd "$work/elsewhere" || exit 1
completes "bash completes a begun subcommand" snapshot sn
completes "bash completes a begun option" --no-auto-delete record --no
completes "bash completes the containers" "$(help_values record --format)" record --format ''
completes "bash completes a begun container behind an equals sign" mp4 record --format = mp
completes "bash completes the codecs" "$(help_values record --codec)" record test --codec ''
completes "bash completes folders alone for --storage" "$work/card" record --storage "$work/c"
completes "bash completes files for the input" "$work/clip.mkv" record --storage "$work/card" "$work/cl"
completes "bash completes the generated clip" "test" record --storage "$work/card" te
completes "bash completes recordings of the storage folder" "$first
$second" play --storage "$work/card" 2024
completes "bash completes one of them whose name is quoted" "$first" play --storage "$work/card" \
    '2024-03-01-08-15-00.To.2024-03-01-08-20-00.\[fr'
completes "bash completes them behind --storage=" "$second" snapshot --storage = "$work/card" 2024-03-01-08-20
completes "bash completes a path of a recording" "$work/card/rec/$second" play "$work/card/rec/2024-03-01-08-20"
completes "bash completes the picture's file" "$work/clip.mkv" snapshot --storage "$work/card" "$second" "$work/cl"
offers record --split '' >"$work/log"
if [ -s "$work/log" ]; then
    echo "FAILED: bash offers nothing for a number"
    cat "$work/log"
    failures=$((failures + 1))
else
    echo "ok: bash offers nothing for a number"
fi

# Where the reader of manual pages is there, it has nothing to complain about.
if command -v groff >/dev/null; then
    groff -man -Tutf8 -ww -z "$page" >"$work/log" 2>&1
    if [ -s "$work/log" ]; then
        echo "FAILED: groff reads the page without a warning"
        cat "$work/log"
        failures=$((failures + 1))
    fi
fi

[ "$failures" -eq 0 ] || { echo "$failures checks failed"; exit 1; }
