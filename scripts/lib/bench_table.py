#!/usr/bin/env python3
"""Puts the figures of a bench run into a note: bench_table.py FIGURES.json NOTE.md

What stands between the lines <!-- figures: begin --> and <!-- figures: end --> is replaced.
"""

import json
import sys

BEGIN = "<!-- figures: begin -->"
END = "<!-- figures: end -->"
UNITS = {"ratio": "", "bytes": " B", "threads": "", "milliseconds": " ms"}


def number(value, kind):
    return f"{value:.2f}" if kind == "ratio" else f"{value:.1f}"


def spread(summary, kind):
    low, high = summary["quartiles"]
    return f"{number(low, kind)} to {number(high, kind)}"


def cost(value):
    return f"{value:.0f}" if value >= 100 else f"{value:.3g}"


def costs(row):
    if "costs" not in row:
        return ""
    found = row["costs"]
    return f"{cost(found['baseline'])} / {cost(found['subject'])} {found['unit']}"


def table_row(row):
    kind = row["kind"]
    target = f"{row['target']:g}{UNITS[kind]}" if "target" in row else ""
    head = f"| {row['row']} | {row['baseline']} |"
    if "skipped" in row:
        return f"{head} not measured: {row['skipped']} | | {target} | | |"
    value = number(row["value"]["median"], kind) + UNITS[kind]
    if row.get("met") is False:
        value = f"**{value}**"
    control = spread(row["control"], kind) if "control" in row else ""
    note = f"; {row['note']}" if "note" in row else ""
    return (f"{head} {value} | {spread(row['value'], kind)} | {target} | {control} "
            f"| {costs(row)}{note} |")


def table(figures):
    kept = "a quick run" if figures["quick"] else "a full run"
    lines = [
        f"{figures['machine']}; {figures['time']}, {kept}. Bold: the target is missed.",
        "",
        "| Row | Baseline | Value | Quartiles | At most | Control, quartiles | Baseline / broker |",
        "|---|---|---|---|---|---|---|",
    ]
    return "\n".join(lines + [table_row(row) for row in figures["rows"]])


def main():
    figures_file, note_file = sys.argv[1:]
    with open(figures_file, encoding="utf-8") as file:
        figures = json.load(file)
    with open(note_file, encoding="utf-8") as file:
        before, rest = file.read().split(BEGIN)
        after = rest.split(END)[1]
    with open(note_file, "w", encoding="utf-8") as file:
        file.write(f"{before}{BEGIN}\n\n{table(figures)}\n\n{END}{after}")


if __name__ == "__main__":
    main()
