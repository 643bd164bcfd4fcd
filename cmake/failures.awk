# failures.awk: takes what matters out of the output of failed tests, and that whole: every failed assertion of
# GoogleTest with all that was printed until its test ended, every report of a sanitizer from its first line to its last,
# and the last lines of each program, for one that broke off or hung without a word.
# Variables: tail, the number of last lines (40).

BEGIN { if (tail == "") tail = 40 }

function show(line) { print line; shown[NR] = 1 }

# A new program's output begins: ctest's heading.
/^ *[0-9]+\/[0-9]+ Test +#[0-9]+: / { finish(); if (!/ Passed /) print; next }

{ kept[++count] = $0; number[count] = NR }

/: Failure$/ { assertion = 1 }
/(ERROR|WARNING): (Address|Leak|Memory|Thread|UndefinedBehavior)Sanitizer/ || /: runtime error: / || /^ThreadSanitizer:/ {
    if (!report && before ~ /^=+$/ && !shown[NR - 1]) print before
    report = 1
    spared = / runtime error: / ? 1 : 0 # this one has no summary: it ends at an empty line
}
/^FAILED: / || /^\[  FAILED  \]/ || /\(Failed\)|\*\*\*(Failed|Timeout|Exception)/ { if (!assertion && !report) show($0) }

assertion || report { if (!shown[NR]) show($0) }

# AddressSanitizer prints the memory around the place behind its summary.
report && /^SUMMARY: / { report = /AddressSanitizer/ ? 2 : 0 }
report == 2 && /ABORTING$/ { report = 0 }
report && spared && /^ *$/ { report = 0 }
assertion && /^\[  FAILED  \]/ { assertion = 0 }

{ before = $0 }

function finish(   i) {
    if (count > 0) {
        for (i = count > tail ? count - tail + 1 : 1; i <= count; ++i)
            if (!shown[number[i]]) print kept[i]
    }
    delete kept
    delete number
    count = assertion = report = 0
}

END { finish() }
