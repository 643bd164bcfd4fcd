#!/usr/bin/env python3
"""Draws docs/soak.svg from the table that the soak test writes.

    QUARRIN_SOAK_TABLE=soak.csv QUARRIN_POINTS=200 test_reliability --gtest_filter='Soak.*'
    docs/soak.py soak.csv docs/soak.svg
"""
import csv
import sys

WIDTH, HEIGHT, LEFT, TOP = 640, 110, 60, 24


def panel(rows, column, title, top):
    minutes = [float(row["minutes"]) for row in rows]
    values = [float(row[column]) for row in rows]
    most = max(values) * 1.2
    points = " ".join(
        f"{LEFT + x / minutes[-1] * WIDTH:.1f},{top + HEIGHT - y / most * HEIGHT:.1f}"
        for x, y in zip(minutes, values))
    return (f'<text x="{LEFT}" y="{top - 6}">{title}: {values[0]:g} at first, {max(values):g} at most, '
            f'{values[-1]:g} at the end</text>\n'
            f'<rect x="{LEFT}" y="{top}" width="{WIDTH}" height="{HEIGHT}" fill="none" stroke="#999"/>\n'
            f'<text x="{LEFT - 6}" y="{top + HEIGHT}" text-anchor="end">0</text>\n'
            f'<text x="{LEFT - 6}" y="{top + 10}" text-anchor="end">{most:.0f}</text>\n'
            f'<polyline points="{points}" fill="none" stroke="#06c" stroke-width="1.5"/>\n')


def main():
    with open(sys.argv[1], newline="") as table:
        rows = list(csv.DictReader(table))
    titles = (("resident_kb", "resident memory, KiB"), ("descriptors", "descriptors"), ("threads", "threads"))
    step = HEIGHT + 40
    height = TOP + step * len(titles) + 10
    with open(sys.argv[2], "w") as plot:
        plot.write(f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH + LEFT + 20}" height="{height}" '
                   'font-family="sans-serif" font-size="11">\n<rect width="100%" height="100%" fill="white"/>\n')
        for number, (column, title) in enumerate(titles):
            plot.write(panel(rows, column, title, TOP + number * step))
        plot.write(f'<text x="{LEFT + WIDTH}" y="{height - 12}" text-anchor="end">'
                   f'{float(rows[-1]["minutes"]):g} minutes of film</text>\n</svg>\n')


if __name__ == "__main__":
    main()
