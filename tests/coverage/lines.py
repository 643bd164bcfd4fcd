#!/usr/bin/env python3
"""lines.py DIR [--write]: reads DIR/coverage.info, writes DIR/summary.txt and DIR/never_run.txt.

Fails when a line of src/ was not run and does not stand in exceptions.txt, or when an exception is about no line any
more. With --write, the table of docs/testing.md gets the figures.
"""

import os
import sys

EXCEPTIONS = os.path.join(os.path.dirname(__file__), "exceptions.txt")
DOCUMENT = "docs/testing.md"
BEGIN = "<!-- figures: ./run coverage --write writes them -->"
END = "<!-- end of figures -->"


def read_counters(path):
    """Of each file: {line: times run} and [times that a branch was taken]."""
    files = {}
    with open(path) as info:
        for record in info:
            key, _, value = record.strip().partition(":")
            if key == "SF":
                lines, branches = files.setdefault(os.path.relpath(value), ({}, []))
            elif key == "DA":
                number, count = value.split(",")[:2]
                lines[int(number)] = int(count)
            elif key == "BRDA":
                taken = value.split(",")[3]
                branches.append(0 if taken == "-" else int(taken))
    return files


def read_exceptions():
    """Triples of a file, words of its line, and the reason."""
    with open(EXCEPTIONS) as file:
        rows = [row.rstrip("\n") for row in file if row.strip() and not row.startswith("#")]
    return [tuple(row.split(" | ")) for row in rows]


def is_about(words, texts, index):
    """A line has the words; of "FIRST ... LAST" it has the last, and one of the three before it the first."""
    first, _, last = words.rpartition(" ... ")
    return last in texts[index] and (not first or any(first in text for text in texts[max(0, index - 3):index]))


def share(ran, all_of_them):
    return "%d of %d (%.1f %%)" % (ran, all_of_them, 100.0 * ran / all_of_them) if all_of_them else "–"


def rows_of(files):
    folders = sorted({os.path.dirname(path) for path in files})
    groups = [(folder, [path for path in files if os.path.dirname(path) == folder]) for folder in folders]
    groups.append(("all of `src/`", [path for path in files if path.startswith("src/")]))
    for name, paths in groups:
        lines = [count for path in paths for count in files[path][0].values()]
        branches = [count for path in paths for count in files[path][1]]
        yield "| %s | %s | %s |" % (name if " " in name else "`%s/`" % name,
                                    share(sum(count > 0 for count in lines), len(lines)),
                                    share(sum(count > 0 for count in branches), len(branches)))


def write_table(rows):
    with open(DOCUMENT) as file:
        text = file.read()
    before, rest = text.split(BEGIN)
    with open(DOCUMENT, "w") as file:
        file.write(before + BEGIN + "\n\n" + "\n".join(rows) + "\n\n" + END + rest.split(END)[1])


def main():
    folder, write = sys.argv[1], "--write" in sys.argv
    files = read_counters(folder + "/coverage.info")
    exceptions = read_exceptions()
    sources = {}
    for path in files:
        with open(path) as file:
            sources[path] = file.read().splitlines()
    wrong, listed = [], []
    for path, (lines, _) in sorted(files.items()):
        for number, count in sorted(lines.items()):
            text = sources[path][number - 1].strip()
            if count > 0 or text == "}":  # there stands the compiler's own clean-up alone
                continue
            reasons = [reason for file, words, reason in exceptions
                       if file == path and is_about(words, sources[path], number - 1)]
            place = "%s:%d: %s" % (path, number, text)
            listed.append(place + (" -- " + reasons[0] if reasons else ""))
            if not reasons and path.startswith("src/"):
                wrong.append("never run: " + place)
    for path, words, _ in exceptions:
        texts = sources.get(path, [])
        if not any(is_about(words, texts, index) for index in range(len(texts))):
            wrong.append("exceptions.txt names a line that is not there: %s | %s" % (path, words))
    rows = ["| Folder | Lines run | Branches taken |", "|---|---:|---:|"] + list(rows_of(files))
    with open(folder + "/summary.txt", "w") as file:
        file.write("\n".join(rows) + "\n")
    with open(folder + "/never_run.txt", "w") as file:
        file.write("\n".join(listed) + "\n")
    print("\n".join(rows))
    if write:
        write_table(rows)
    for line in wrong:
        print(line, file=sys.stderr)
    sys.exit(1 if wrong else 0)


main()
