#!/usr/bin/env python3
"""Compares the lines that no test has run with those that are known to be out of reach.

Usage: check_uncovered.py GCOVR.json KNOWN.txt

KNOWN.txt holds paragraphs: a line with the reason, then lines "FILE: text of the line", as it
stands in the source but for blanks at its ends. An uncovered line that is in no paragraph is
printed, and the exit status is 1. What KNOWN.txt names and a test now reaches, or the source no
longer has, is printed as well: of it only the latter is an error, as some lines take luck.
"""
import json
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]


def read_known(path):
    known = {}
    for paragraph in Path(path).read_text(encoding='utf-8').split('\n\n'):
        lines = [line for line in paragraph.splitlines() if line and not line.startswith('#')]
        if not lines:
            continue
        reason, places = lines[0], lines[1:]
        if not places:
            sys.exit(f'{path}: "{reason}" names no line')
        for place in places:
            file, _, text = place.partition(': ')
            known[file, text.strip()] = reason
    return known


def uncovered_lines(report):
    for entry in json.loads(Path(report).read_text(encoding='utf-8'))['files']:
        source = (ROOT / entry['file']).read_text(encoding='utf-8').splitlines()
        for line in entry['lines']:
            if line['count'] == 0 and not line.get('gcovr/noncode'):
                number = line['line_number']
                yield entry['file'], number, source[number - 1].strip()


def main(report, known_path):
    known = read_known(known_path)
    status = 0
    seen = set()
    for file, number, text in uncovered_lines(report):
        seen.add((file, text))
        if (file, text) not in known:
            print(f'{file}:{number}: no test runs this: {text}')
            status = 1
    for file, text in sorted(known.keys() - seen):
        source = (ROOT / file).read_text(encoding='utf-8').splitlines()
        if text in (line.strip() for line in source):
            print(f'{file}: reached this time: {text}')
        else:
            print(f'{file}: has no such line any more: {text}')
            status = 1
    print(f'{len(seen)} kinds of lines out of reach, each with its reason in {Path(known_path).name}')
    return status


if __name__ == '__main__':
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
