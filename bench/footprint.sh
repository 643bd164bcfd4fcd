#!/bin/sh
# footprint.sh: measures what the library costs, compares with budgets.txt, and keeps the table of docs/footprint.md.
#
# footprint.sh measure PROGRAM LIBRARY   prints "FIGURE VALUE" for everything that can be measured here
# footprint.sh check AMD64 ARMHF         compares two files of such lines, "-" for none; the last line counts
# footprint.sh write AMD64 ARMHF         writes both into the table of the document
# footprint.sh same                      fails when the document has other rows or budgets than budgets.txt
# footprint.sh test amd64|armhf PROGRAM LIBRARY   all of it for one architecture, as a test
#
# STRIP names the strip for the library; QUARRIN_EMULATOR holds the words that start a program of another machine.
set -eu
unset CDPATH
here=$(cd "$(dirname "$0")" && pwd)
budgets=$here/budgets.txt
document=$here/../docs/footprint.md

# A listing holds paths: the folder has to be equally long everywhere.
unset TMPDIR
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
trap 'exit 1' HUP INT TERM

measure()
{
    ${STRIP:-strip} -o "$scratch/library" "$2"
    size "$scratch/library" | awk 'NR == 2 { print "library_text", $1; print "library_data", $2; print "library_bss", $3 }'
    # Time and sleep under an emulator are the emulator's.
    questions="record frames replay stack threads listing idle time"
    [ -z "${QUARRIN_EMULATOR-}" ] || questions="record frames replay stack threads listing"
    for question in $questions; do
        # shellcheck disable=SC2086 # words
        ${QUARRIN_EMULATOR-} "$1" "$question" || { echo "footprint.sh: the question \"$question\" was not answered" >&2; exit 1; }
    done
}

# Prints a line for each figure: name, unit, measured and budget on amd64 and on armhf, then what is wrong with it.
check()
{
    awk -v amd64="$1" -v armhf="$2" '
        function load(file, into,    words) {
            if (file == "-")
                return 0
            while ((getline line < file) > 0) {
                split(line, words, " ")
                into[words[1]] = words[2]
                if (!(words[1] in known))
                    strange = strange " " words[1]
            }
            close(file)
            return 1
        }
        function judge(arch, name, there, value, budget) {
            if (budget == "-")
                return "-"
            if (!there) {
                skipped++
                return "-"
            }
            if (value == "") {
                failed++
                wrong = wrong "  NOT MEASURED on " arch
            } else if (value + 0 > budget + 0) {
                failed++
                wrong = wrong "  OVER BUDGET on " arch
            } else
                passed++
            if (value == "" || value + 0 > budget + 0)
                names = names "\n    " name " on " arch ": " (value == "" ? "not measured" : value) ", budget " budget
            return value == "" ? "?" : value
        }
        /^#/ || NF == 0 { next }
        { order[++count] = $1; known[$1] = 1; unit[$1] = $2; first[$1] = $3; second[$1] = $4 }
        END {
            here1 = load(amd64, one)
            here2 = load(armhf, two)
            printf "%-22s %-8s %10s %10s %10s %10s\n", "figure", "unit", "amd64", "budget", "armhf", "budget"
            for (i = 1; i <= count; i++) {
                name = order[i]
                wrong = ""
                left = judge("amd64", name, here1, one[name], first[name])
                right = judge("armhf", name, here2, two[name], second[name])
                printf "%-22s %-8s %10s %10s %10s %10s%s\n", name, unit[name], left, first[name], right, second[name], wrong
            }
            if (strange != "") {
                failed++
                names = names "\n    without a line in budgets.txt:" strange
            }
            if (names != "")
                print "footprint: these figures fail:" names
            printf "%d passed, %d failed, %d skipped\n", passed, failed, skipped
            exit failed > 0
        }' "$budgets"
}

# The rows of the table. Without figures, what was measured is left out: that is what has to be the same.
rows()
{
    awk -v amd64="${1-}" -v armhf="${2-}" '
        function load(file, into,    words) {
            while (file != "" && (getline line < file) > 0) {
                split(line, words, " ")
                into[words[1]] = words[2]
            }
        }
        function cell(budget, value) { return budget == "-" ? "-" : amd64 == "" ? "" : value }
        BEGIN { load(amd64, one); load(armhf, two) }
        /^#/ || NF == 0 { next }
        {
            what = $5
            for (i = 6; i <= NF; i++)
                what = what " " $i
            unit = $2 == "per_s" ? "per s" : $2
            printf "| `%s` | %s | %s | %s | %s | %s | %s |\n", $1, what, unit, cell($3, one[$1]), $3, cell($4, two[$1]), $4
        }' "$budgets"
}

table_begin='<!-- figures: ./run size --write writes them -->'
table_end='<!-- end of figures -->'

write_table()
{
    rows "$1" "$2" >"$scratch/rows"
    awk -v begin="$table_begin" -v end="$table_end" -v rows="$scratch/rows" '
        $0 == end { inside = 0 }
        !inside { print }
        $0 == begin {
            inside = 1
            print ""
            print "| Figure | What it is | Unit | amd64 | budget | armhf | budget |"
            print "|---|---|---|---:|---:|---:|---:|"
            while ((getline line < rows) > 0)
                print line
            print ""
        }' "$document" >"$scratch/document"
    cat "$scratch/document" >"$document"
}

same()
{
    rows >"$scratch/wanted"
    awk -v begin="$table_begin" -v end="$table_end" '
        $0 == end { inside = 0 }
        inside && /^\| `/ { print }
        $0 == begin { inside = 1 }' "$document" |
        awk -F ' [|] ' -v OFS=' | ' '{ if ($4 != "-") $4 = ""; if ($6 != "-") $6 = ""; print }' >"$scratch/kept"
    if ! diff "$scratch/wanted" "$scratch/kept" >"$scratch/diff"; then
        cat "$scratch/diff" >&2
        echo "footprint.sh: docs/footprint.md and budgets.txt differ (< budgets.txt); ./run size --write writes the table" >&2
        return 1
    fi
}

case ${1-} in
measure) measure "$2" "$3" ;;
check) check "$2" "$3" ;;
write) write_table "$2" "$3" ;;
same) same ;;
test)
    status=0
    measure "$3" "$4" >"$scratch/figures"
    if [ "$2" = amd64 ]; then
        check "$scratch/figures" - || status=1
    else
        check - "$scratch/figures" || status=1
    fi
    same || status=1
    exit "$status"
    ;;
*)
    sed -n '2,/^set -eu/{/^#/s/^# \{0,1\}//p;}' "$0" >&2
    exit 2
    ;;
esac
