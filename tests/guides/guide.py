#!/usr/bin/env python3
"""Follows a guide word for word: makes its files, runs its commands, compares what they print.

    guide.py --on-this-machine [--without WHAT]... GUIDE.md
    guide.py --in-world-of PID [--from FOLDER] [--without WHAT]... GUIDE.md

It changes the machine that it runs on, as root, as a reader would: in_world.sh gives it one that
vanishes afterwards. Or it stays outside, and what it runs and makes is in the world of a process, with
that one's files, network and processes; it begins in FOLDER there. Without these options it only
looks whether the guide can be read.

What is followed is said by the words behind a fence's language, which a reader does not see:

    ```cpp file=main.cpp     the block becomes this file; the text above has to name it
    ```sh run                its commands are run by one shell, block after block; none may fail
    ```sh run status=2       the last of them ends with this status
    ```text output           what the block before has printed

A further word, needs=WHAT, leaves a block out where WHAT cannot be had (--without). All other blocks
are for the reader's eye alone.

In what is shown, "…" stands for anything, on a line of its own for any number of lines; a number of
four and more digits (a port, a process) stands for any number, and so does a duration. How wide a
gap is does not matter. First tries itself on examples. Ends with 0 when the guide is right.
"""
import argparse
import collections
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile

Block = collections.namedtuple("Block", "line language words text above")

FENCE = re.compile(r"^( {0,3})(`{3,})\s*(\S*)\s*(.*?)\s*$")
# What may differ from one run to the next.
VARIES = re.compile(r"…|\b\d+(?:\.\d+)? ?(?:us|ms|s|min|h)\b|\b\d{4,}\b|\s+")
DURATION = r"\d+(?:\.\d+)? ?(?:us|ms|s|min|h)\b"


def blocks_of(text):
    """Every fenced block, with the text between it and the one before."""
    blocks, above, lines = [], [], iter(enumerate(text.splitlines(), 1))
    for number, line in lines:
        fence = FENCE.match(line)
        if not fence:
            above.append(line)
            continue
        indent, ticks, language, words = fence.groups()
        body = []
        for _, inner in lines:
            if inner.strip() == ticks:
                break
            body.append(inner.removeprefix(indent))
        else:
            raise SystemExit(f"line {number}: a fence that nothing closes")
        words = dict(word.partition("=")[::2] for word in words.split())
        blocks.append(Block(number, language, words, "".join(f"{row}\n" for row in body),
                            "\n".join(above)))
        above = []
    return blocks


def line_pattern(line):
    pieces, end = [], 0
    for varying in VARIES.finditer(line):
        pieces.append(re.escape(line[end:varying.start()]))
        end, found = varying.end(), varying.group()
        if found == "…":
            pieces.append(".*")
        elif found.isspace():
            pieces.append(r"\s+")
        else:
            pieces.append(r"\d+" if found.isdigit() else DURATION)
    return "".join(pieces) + re.escape(line[end:])


def matches(shown, seen):
    """Whether `seen` is what the guide shows."""
    pattern = ""
    for line in shown.rstrip().splitlines():
        pattern += r"(?:.*\n)*" if line.strip() == "…" else line_pattern(line.strip()) + r"\n"
    lines = "".join(f"{line.strip()}\n" for line in seen.rstrip().splitlines())
    return re.fullmatch(pattern, lines) is not None


class Place:
    """Where a guide is followed: the command that starts a shell there, and, for who looks from
    here, the root of its files."""

    def __init__(self, process=None, start="."):
        self.root = pathlib.Path("/")
        self.shell = ["bash", "--noprofile", "--norc"]
        self.start = start
        if process:
            self.root = pathlib.Path(f"/proc/{process}/root")
            self.shell = ["nsenter", f"--target={process}", "--mount", "--pid", "--net", "--uts",
                          "--ipc", "--cgroup", "--", "env", "-i", "HOME=/root", "LANG=C.UTF-8",
                          "PATH=/usr/sbin:/usr/bin:/sbin:/bin"] + self.shell

    def seen_from_here(self, path):
        return self.root / path.relative_to("/")


class Shell:
    """One shell for all blocks: what one of them sets, the next one finds."""

    def __init__(self, place):
        self.place = place
        self.folder = tempfile.TemporaryDirectory(prefix="guide-",
                                                  dir=place.seen_from_here(pathlib.Path("/tmp")))
        self.process = subprocess.Popen(place.shell, stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)

    def run(self, commands):
        """What the commands print, the status of the last one, those that failed, and where the
        shell is afterwards."""
        script, output = (pathlib.Path(self.folder.name, name) for name in ("script", "output"))
        script.write_text(commands)
        there = "/tmp/" + pathlib.Path(self.folder.name).name
        self.process.stdin.write(
            f"failed=(); trap 'failed+=(\"$? $BASH_COMMAND\")' ERR\n"
            f". {there}/script >{there}/output 2>&1 </dev/null; status=$?; trap - ERR\n"
            f"printf '%s\\0' \"$status\" \"$PWD\" \"${{failed[@]}}\"; printf '\\n'\n")
        self.process.stdin.flush()
        answer = self.process.stdout.readline()
        while answer and not answer.endswith("\0\n"):
            answer += self.process.stdout.readline()
        if not answer:
            raise SystemExit("the shell has ended:\n" + output.read_text(errors="replace"))
        status, where, *failed = answer[:-2].split("\0")
        return output.read_text(errors="replace"), int(status), failed, pathlib.Path(where)


def made_file(block, where):
    name = block.words["file"]
    if f"`{name}`" not in block.above:
        return f"the text above does not say that this is `{name}`"
    path = where / name
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(block.text)
    return None


def what_failed(block, status, failed):
    """None when the commands ended as the guide says."""
    expected = int(block.words.get("status", 0))
    if status != expected:
        return f"the status is {status}, not {expected}"
    if expected == 0 and failed:
        return "status and command: " + "; ".join(failed)
    return None


def follow(text, place, without=(), say=lambda *words, **how: None):
    """What is wrong with the guide; None when it is right."""
    shell = Shell(place)
    _, _, _, where = shell.run(f"cd {shlex.quote(place.start)}")
    seen = None  # of the commands before; None: they were left out
    for block in blocks_of(text):
        wrong = None
        if not {"file", "run", "output"} & set(block.words):
            continue
        if block.words.get("needs") in without:
            say(f"line {block.line}: left out, it needs {block.words['needs']}")
            seen = None
        elif "file" in block.words:
            say(f"line {block.line}: {block.words['file']}")
            wrong = made_file(block, place.seen_from_here(where))
        elif "run" in block.words:
            say(f"line {block.line}:\n{block.text}", end="")
            seen, status, failed, where = shell.run(block.text)
            say(seen, end="")
            wrong = what_failed(block, status, failed)
        elif seen is not None and not matches(block.text, seen):
            wrong = "what is shown is not what was printed:\n" + block.text
        if wrong:
            return f"line {block.line}: {wrong}" + (f"\nPrinted:\n{seen}" if seen else "")
    return None


PAIRS = (  # what a guide shows, what was printed, and whether that is the same
    ("port 41234\n", "port 5\n", True),
    ("serial 2\n", "serial 3\n", False),
    ("took 12.5 ms\n", "took 980 us\n", True),
    ("took 12 cm\n", "took 13 cm\n", False),
    ("a   b\n", "a b\n", True),
    ("a\n…\nb\n", "a\nx\ny\nb\n", True),
    ("a\n…\nb\n", "a\nb\n", True),
    ("a\n…\nb\n", "x\nb\n", False),
    ("a … c\n", "a b c\n", True),
    ("a\n", "a\nb\n", False),
    ("1.0 (x)\n", "1.0 (x)\n", True),
    ("1.0\n", "1x0\n", False),
)
GUIDES = (  # a guide, and how what is wrong with it begins
    ("```sh run\necho 1 >f; x=2\n```\n`f g`\n```sh run\ncat f; echo $x\n```\n"
     "```text output\n1\n2\n```\n", None),
    ("```sh run\nmkdir d && cd d\n```\nThis is `a`:\n```c file=a\nint i;\n```\n"
     "```sh run\ncat ../d/a\n```\n```text output\nint i;\n```\n", None),
    ("It:\n```c file=a\nint i;\n```\n", "line 2: the text above does not say"),
    ("```sh run\nfalse\ntrue\n```\n", "line 1: status and command: 1 false"),
    ("```sh run\ntrue && (exit 3)\n```\n", "line 1: the status is 3"),
    ("```sh run status=3\nfalse; (exit 3)\n```\n", None),
    ("```sh run\nif false; then :; fi; echo a\n```\n```text output\nb\n```\n",
     "line 4: what is shown"),
    ("```sh\nfalse\n```\n", None),
    ("```sh run needs=images\nfalse\n```\n```text output\na\n```\n", None),
    ("```sh run needs=nothing\nfalse\n```\n", "line 1: the status is 1"),
)


def try_itself():
    for shown, seen, same in PAIRS:
        assert matches(shown, seen) == same, (shown, seen)
    for guide, expected in GUIDES:
        with tempfile.TemporaryDirectory() as folder:
            wrong = follow(guide, Place(start=folder), {"images"}) or ""
            assert wrong.startswith(expected or "\0") if expected else not wrong, (guide, wrong)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("guide", type=pathlib.Path)
    where = parser.add_mutually_exclusive_group()
    where.add_argument("--on-this-machine", action="store_true")
    where.add_argument("--in-world-of", type=int, metavar="PID")
    parser.add_argument("--from", dest="start", default=".", metavar="FOLDER")
    parser.add_argument("--without", action="append", default=[], metavar="WHAT")
    options = parser.parse_args()
    try_itself()
    text = options.guide.read_text(encoding="utf-8")
    if not options.on_this_machine and not options.in_world_of:
        print(f"{len(blocks_of(text))} blocks; none was run: that takes a machine to do it on")
        return 0
    wrong = follow(text, Place(options.in_world_of, options.start), options.without,
                   lambda *words, **how: print(*words, **how, flush=True))
    if wrong:
        print(f"{options.guide}: {wrong}", file=sys.stderr)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
