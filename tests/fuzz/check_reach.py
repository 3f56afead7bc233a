#!/usr/bin/env python3
"""Replays a corpus, and checks that it calls all that it has to.

Usage: check_reach.py REPLAY-PROGRAM CORPUS [methods] [words]

methods: every method of the services that the broker serves, as their definitions list them;
words: every command word, as the table in broker/Execute.cpp lists them. First tries itself on
examples. Exits with the replay's status when that fails, with 1 when something is not called.
"""
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]

SERVED = {"rpc/vok.thrift": "VokBroker", "rpc/vok_admin.thrift": "VokBrokerAdmin"}
COMMANDS = "broker/Execute.cpp"


def methods_of(definition, service):
    """The methods of one service, "Service.Method"."""
    definition = re.sub(r"//[^\n]*", "", definition)
    body = re.search(rf"\bservice\s+{service}\s*{{(.*?)}}", definition, re.DOTALL)[1]
    body = re.sub(r"\bthrows\s*\([^)]*\)", "", body)
    return {f"{service}.{method}" for method in re.findall(r"(\w+)\s*\([^)]*\)", body)}


def words_of(source):
    """What the table of commands calls a handler for, "Execute word"."""
    table = re.search(r"CCommand::kTable\[\] = {(.*?)\n};", source, re.DOTALL)[1]
    return {f"Execute {word}" for word in re.findall(r'{"([^"]+)",\s*&CCommand::', table)}


def reached_by(output):
    return {line.removeprefix("reached ") for line in output.split("\n")
            if line.startswith("reached ")}


def try_on_examples():
    definition = "service A { // old(): gone\n void X(1: i32 x) throws (1: E e)\n  list<i32> Y() }"
    assert methods_of("service B { i32 Z() }" + definition, "A") == {"A.X", "A.Y"}
    table = 'CCommand::kTable[] = {\n {"One", &CCommand::One},\n // {"Two"\n {"Three ",\n' \
            '  &CCommand::Three},\n};\n{"Four", &CCommand::Four}'
    assert words_of(table) == {"Execute One", "Execute Three "}
    reached = reached_by("corpus/a\nreached A.X\nreached Execute Three \n2 inputs replayed\n")
    assert {"A.X", "A.Y", "Execute Three "} - reached == {"A.Y"}


def required(kinds):
    names = set()
    if "methods" in kinds:
        for path, service in SERVED.items():
            names |= methods_of((ROOT / path).read_text(), service)
    if "words" in kinds:
        names |= words_of((ROOT / COMMANDS).read_text())
    return names


def main():
    try_on_examples()
    replay, corpus, *kinds = sys.argv[1:]
    run = subprocess.run([replay, corpus], stdout=subprocess.PIPE, encoding="latin-1")
    if run.returncode != 0:
        print("\n".join(run.stdout.splitlines()[-3:]))
        sys.exit(f"{replay} ended with {run.returncode} at the input that it named last")

    missing = required(kinds) - reached_by(run.stdout)
    for name in sorted(missing):
        print(f"no input in {corpus} calls {name!r}")
    if missing:
        sys.exit(1)
    print(f"{run.stdout.splitlines()[-1]}, {len(required(kinds))} operations called")


if __name__ == "__main__":
    main()
