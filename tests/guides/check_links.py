#!/usr/bin/env python3
"""Every link in the Markdown files leads somewhere: its file is there, and so is its heading.

Links to other machines are not followed. Every document in docs/ has to be one click from the
README. First tries itself on examples. Prints what leads nowhere, and then exits with 1.
"""
import os
import pathlib
import re
import sys
import tempfile
import urllib.parse

ROOT = pathlib.Path(__file__).resolve().parents[2]
SKIPPED = re.compile(r"^(build.*|\.git|\.cache)$")  # not ours, or made

FENCE = re.compile(r"^ {0,3}(`{3,}|~{3,}).*?^ {0,3}\1`*~*\s*$", re.S | re.M)
INDENTED = re.compile(r"(?:\A|\n)\s*\n(?:(?: {4}|\t).*\n?)+")
CODE = re.compile(r"(`+)(?!`).+?(?<!`)\1(?!`)", re.S)
COMMENT = re.compile(r"<!--.*?-->", re.S)
LINK = re.compile(r"!?\[(?:[^\[\]]|\[[^\]]*\])*\]\(\s*<?([^)\s>]+)>?(?:\s+\"[^\"]*\")?\s*\)")
REFERENCE = re.compile(r"^ {0,3}\[[^\]]+\]:\s*<?(\S+?)>?(?:\s|$)", re.M)
HTML = re.compile(r"<(?:a|img)\s[^>]*?(?:href|src)=\"([^\"]+)\"")
HEADING = re.compile(r"^ {0,3}#{1,6}\s+(.*?)\s*#*\s*$", re.M)
NAMED = re.compile(r"<a\s[^>]*?(?:name|id)=\"([^\"]+)\"")


def prose(text):
    """Without what is shown as it is written."""
    for shown in (COMMENT, FENCE, INDENTED):
        text = shown.sub("\n\n", text)
    return text


def links_of(text):
    text = CODE.sub("", prose(text))
    return LINK.findall(text) + REFERENCE.findall(text) + HTML.findall(text)


def anchors_of(text):
    """As GitHub makes them: a second heading of the same words gets a number."""
    text, anchors, seen = prose(text), set(), {}
    for heading in HEADING.findall(text):
        words = re.sub(r"!?\[([^\]]*)\]\([^)]*\)", r"\1", heading)
        slug = re.sub(r"[^\w\- ]", "", words.lower()).replace(" ", "-")
        count = seen.get(slug, 0)
        anchors.add(f"{slug}-{count}" if count else slug)
        seen[slug] = count + 1
    return anchors | set(NAMED.findall(text))


def markdown_files(root):
    for folder, folders, names in os.walk(root):
        folders[:] = sorted(name for name in folders if not SKIPPED.match(name))
        yield from (pathlib.Path(folder, name) for name in sorted(names) if name.endswith(".md"))


def what_is_wrong(page, link):
    """None when the link leads somewhere."""
    if re.match(r"[a-z][a-z0-9+.-]*:", link):
        return None
    path, _, anchor = urllib.parse.unquote(link).partition("#")
    target = (page.parent / path) if path else page
    if not target.exists():
        return "there is no such file"
    if anchor and target.suffix == ".md":
        if anchor not in anchors_of(target.read_text(encoding="utf-8")):
            return "there is no such heading"
    return None


def findings(root):
    reached = set()
    for page in markdown_files(root):
        for link in links_of(page.read_text(encoding="utf-8")):
            wrong = what_is_wrong(page, link)
            if wrong:
                yield f"{page.relative_to(root)}: ({link}): {wrong}"
            if page == root / "README.md":
                reached.add((page.parent / link.partition("#")[0]).resolve())
    for document in sorted((root / "docs").glob("*.md")):
        if document.resolve() not in reached:
            yield f"README.md: does not lead to {document.relative_to(root)}"


# A README beside docs/A.md, which has "# One" and twice "## It's `two`: x"; how much is wrong with it.
PAGES = {
    "[a](docs/A.md) ![p](p.png) [b](docs/A.md#one) [c](docs/A.md#its-two-x)": 0,
    "[a](docs/A.md#its-two-x-1) [`f`](docs/A.md \"title\") <a href=\"docs/A.md\">": 0,
    "[a](docs/A.md) [b](docs/A.md#three)": 1,
    "[a](docs/A.md) [b](docs/B.md) ![q](q.png)": 2,
    "# Here\n[a](docs/A.md) [h](#here) [i](#there)": 1,
    "[a](docs/A.md)\n```\n[b](B.md)\n```\n`[c](C.md)` <!-- [d](D.md) -->\n\n    [e](E.md)\n": 0,
    "[a](docs/A.md)\n\n[b]: B.md\n": 1,
    "[a](docs/A.md) [w](https://example.org/x)": 0,
    "nothing": 1,
}


def try_itself():
    for text, count in PAGES.items():
        with tempfile.TemporaryDirectory() as folder:
            root = pathlib.Path(folder)
            (root / "docs").mkdir()
            (root / "p.png").touch()
            (root / "docs/A.md").write_text("# One\n## It's `two`: x\n## It's `two`: x\n")
            (root / "README.md").write_text(text)
            assert len(list(findings(root))) == count, (text, list(findings(root)))


def main():
    try_itself()
    wrong = list(findings(ROOT))
    for line in wrong:
        print(line)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
