#!/usr/bin/env python3
"""scripts/lib/bench_table.py: figures into a note."""

import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

TOOL = pathlib.Path(__file__).resolve().parents[2] / "scripts/lib/bench_table.py"
NOTE = "before\n<!-- figures: begin -->\nstale\n<!-- figures: end -->\nafter\n"


def summary(median):
    return {"median": median, "quartiles": [median - 0.1, median + 0.1], "range": [0, 9]}


def row(**more):
    return {"id": "a", "row": "what", "baseline": "beside", "kind": "ratio", **more}


def update(rows):
    """The note afterwards."""
    figures = {"machine": "a machine", "time": "now", "quick": False, "rows": rows}
    with tempfile.TemporaryDirectory() as folder:
        figures_file = os.path.join(folder, "figures.json")
        note_file = os.path.join(folder, "note.md")
        pathlib.Path(figures_file).write_text(json.dumps(figures), encoding="utf-8")
        pathlib.Path(note_file).write_text(NOTE, encoding="utf-8")
        subprocess.run([sys.executable, TOOL, figures_file, note_file], check=True)
        return pathlib.Path(note_file).read_text(encoding="utf-8")


class BenchTable(unittest.TestCase):
    def test_replaces_what_stands_between_the_marks_only(self):
        note = update([])
        self.assertTrue(note.startswith("before\n<!-- figures: begin -->\n"))
        self.assertTrue(note.endswith("<!-- figures: end -->\nafter\n"))
        self.assertNotIn("stale", note)
        self.assertIn("a machine; now, a full run", note)

    def test_shows_value_spread_target_control_and_costs(self):
        note = update([row(value=summary(1.2), control=summary(1), target=1.3, met=True,
                           costs={"baseline": 912.4, "subject": 1.234, "unit": "us"})])
        self.assertIn("| what | beside | 1.20 | 1.10 to 1.30 | 1.3 | 0.90 to 1.10 | 912 / 1.23 us |",
                      note)

    def test_emphasises_what_misses_its_target(self):
        self.assertIn("| **1.40** |", update([row(value=summary(1.4), target=1.3, met=False)]))

    def test_says_why_a_row_is_missing(self):
        self.assertIn("| not measured: no bus | | 1.3 | | |", update([row(target=1.3, skipped="no bus")]))


if __name__ == "__main__":
    unittest.main()
