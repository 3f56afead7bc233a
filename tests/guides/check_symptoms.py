#!/usr/bin/env python3
"""What docs/INTEGRATION.md says about failures is what the broker logs, and all of it.

Between its two marks, each text in backquotes in a column "Message" has to be a message of the
broker, from end to end, and each message of level 0 on the road of an open or of a start has to
stand in the document. So does each reason that an open gives up with.

First tries itself on examples. Prints what is wrong, and then exits with 1.
"""
import pathlib
import re
import sys

sys.dont_write_bytecode = True  # a check leaves nothing behind

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests"))

from check_messages import CONVERSION, FOLDERS, messages_of

GUIDE = "docs/INTEGRATION.md"
REGION = re.compile(r"<!-- messages: begin -->(.*)<!-- messages: end -->", re.S)
CELLS = re.compile(r"(?<!\\)\|")

# Whose messages of level 0 the guide has to explain.
ROADS = ("open/OpenEmp.cpp", "open/StartEmp.cpp", "open/ForkEmp.cpp", "open/ConfirmEmp.cpp",
         "open/LauncherHandOff.cpp", "open/Location.cpp", "platform/Mount.cpp",
         "rpc/CRpcServer.cpp", "broker/StartServer.cpp", "broker/BrokerServer.cpp",
         "broker/PluginImage.cpp", "broker/GroupingConfig.cpp")
# Or need not, and why.
UNEXPLAINED = {
    "An error occured during notifing . rc : [%d]": "waking a waiter never fails",
    "No type for [%d]. It may assign EMPLOCATION_BROKER": "an open with such a location has failed",
    "!!FATAL!! There is no case for [%d]. it may return 127.0.0.1": "nobody asks for such a kind",
    "Unmounting [%s] failed: [out of memory].": "a form of the line without that reason",
    "strOldPepper Img_Mount Fail": "every start without an update writes it",
    "Error opening file.": "every start without an update writes it",
    "The server has ended unasked, and the broker with it.": "the end of a broker, not a start",
    "Remove [%s] failed.": "a stop",
    "RemoveFile [%s] failed.": "a stop",
}


FENCED = re.compile(r"^```.*?^```$", re.S | re.M)


def pattern_of(text_format):
    pieces = CONVERSION.split(text_format)
    for i, piece in enumerate(pieces):
        pieces[i] = ".*" if i % 2 else re.escape(piece)
    return re.compile("".join(pieces), re.S)


def shown_messages(region):
    """The texts in backquotes of the first column of each table that is headed "Message"."""
    heading = None
    for line in region.splitlines():
        if not line.startswith("|"):
            heading = None
            continue
        first = CELLS.split(line)[1].strip()
        if heading is None:
            heading = first
        elif heading.startswith("Message"):
            yield from (text.replace("\\|", "|") for text in re.findall(r"`([^`]+)`", first))


def is_shown(text_format, region):
    """Anywhere but in a block of commands: what every failure ends with stands above the tables."""
    pattern = pattern_of(text_format)
    texts = re.findall(r"`([^`]+)`", FENCED.sub("", region))
    return any(pattern.fullmatch(text.replace("\\|", "|").replace("\n", " ")) for text in texts)


def is_logged(text, formats):
    return any(pattern_of(text_format).fullmatch(text) for text_format in formats)


def findings(guide, messages, reasons):
    region = REGION.search(guide)
    if not region:
        return ["the marks around the tables are missing"]
    formats = {message.format for message in messages}
    wrong = [f"not a message of the broker: {text!r}"
             for text in shown_messages(region[1]) if not is_logged(text, formats)]
    for message in messages:
        if message.level != "0" or message.place.split(":")[0] not in ROADS:
            continue
        shown = is_shown(message.format, guide)
        if shown == (message.format in UNEXPLAINED):
            what = "exempt, yet explained" if shown else "not explained"
            wrong.append(f"{message.place}: {what}: {message.format!r}")
    wrong += [f"not explained: the reason {reason!r}"
              for reason in reasons if reason not in region[1]]
    return wrong


def try_itself():
    class Message:
        level, format, place = "0", "EMP [%s] is gone.", "open/OpenEmp.cpp:1"
    table = ("<!-- messages: begin -->\n| Message | Means |\n|---|---|\n| {} | x |\n"
             "<!-- messages: end -->")
    for cell, right in (("`EMP [a] is gone.`", True), ("`EMP […] is gone.`", True),
                        ("`EMP [a] is gone`", False), ("EMP [a] is gone.", False),
                        ("`EMP [a] is gone.`, `no`", False)):
        assert (not findings(table.format(cell), [Message], ())) == right, cell
    assert findings(table.format("`EMP [a] is gone.`"), [Message], ("a reason",))
    assert not findings("```sh run\nls\n```\n\n" + table.format("`EMP [a] is gone.`"), [Message], ())
    assert findings("no marks", [], ())


def main():
    try_itself()
    sources = {str(path.relative_to(ROOT)): path.read_text(encoding="utf-8")
               for folder in FOLDERS for path in sorted((ROOT / folder).rglob("*"))
               if path.suffix in (".cpp", ".h")}
    reasons = re.findall(r'throw std::string\("([^"]+)"\)', sources["open/OpenEmp.cpp"])
    if not reasons:
        raise SystemExit("open/OpenEmp.cpp gives no reasons any more: mend this check")
    wrong = findings((ROOT / GUIDE).read_text(encoding="utf-8"), list(messages_of(sources)),
                     sorted(set(reasons)))
    for line in wrong:
        print(f"{GUIDE}: {line}")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
