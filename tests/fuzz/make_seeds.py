#!/usr/bin/env python3
"""Writes the seeds of the fuzz targets, corpus/TARGET/seed-NAME, and their dictionaries.

Each seed is a meaningful input: a message of every method and of every command word, a report as
EMPs make them, a configuration file as EMPs come with. What fuzzing has added has other names, and
stays.
"""
import pathlib
import re
import struct

FOLDER = pathlib.Path(__file__).parent
CORPUS = FOLDER / "corpus"

REPORT = "__BROKER_CMD_NOTIFY_EMP_SERVER_INFO"
STOP = "__BROKER_CMD_NOTIFY_TO_STOP_EMP_SERVER"
LAUNCHER = "__BROKER_CMD_NOTIFY_REGISTEREMP_SERVER"
RUNS = "__SERVER_SUCCESS_TO_RUN"

# ---- Lines: what the targets calls, execute and report read, and wire before its bytes ----


def line(*texts, meanwhile=()):
    """One line, and below it what happens meanwhile."""
    below = [" " + text for block in meanwhile for text in block.split("\n")]
    return "\n".join(["\t".join(texts), *below])


# (arg1, cmd, arg3, arg4, arg5, arg6), by the name of the seed
COMMANDS = {
    "version": ("50700", "GetVOKVersion", "", "", "", ""),
    "report": ("", REPORT, "99996", "50610|901", RUNS, "0001"),
    "report-of-nobody": ("", REPORT, "x", "50610|901", RUNS, "0001"),
    "group-serves": ("", "__BROKER_CMD_NOTIFY_GROUPINGEMP_SERVER", "Band", "50402", "", ""),
    "launcher-comes": ("1", LAUNCHER, "Kitchen", "50502", "", ""),
    "launcher-goes": ("0", LAUNCHER, "Radio", "50501", "", ""),
    "register": ("", "__BROKER_CMD_NOTIFY_REGISTER_EMP", "Cook", "50501", "", ""),
    "unregister": ("", "__BROKER_CMD_NOTIFY_UNREGISTER_EMP", "Sport", "50501", "", ""),
    "stop": ("50701", STOP, "Player", "50601", "1", ""),
    "stop-of-thread": ("50703", STOP, "News", "50604", "2", ""),
    "stop-of-group": ("50702", STOP, "Alto", "50605", "1", ""),
    "close-all": ("50701", "CloseAllEmpWithAppID ", "App", "Widget", "", ""),
    "prepare-to-close": ("50701", "__CLIENT_CMD_PREPARE_TO_CLOSE", "App", "Widget", "", ""),
    "unknown": ("50700", "CloseAllEmpWithAppID", "App", "", "", ""),
    "no-word": ("", "", "", "", "", ""),
}
# What happens while a command is carried out.
DURING = {
    "launcher-goes": [line("answers", "0")],
    "close-all": [line("answers", "0", "EMP_OWNS_APP_ID"), line("answers", "1")] * 3,
    "prepare-to-close": [line("answers", "0", "EMP_OWNS_APP_ID"), line("refuses")],
}

GOOD_REPORT = line("Execute", "", REPORT, "@", "50610|700001", RUNS, "0001")
CALLS = {
    "open": line("OpenEmp", "50700", "Weather", "1.0", "App", meanwhile=[GOOD_REPORT]),
    "open-and-close": "\n".join([
        line("OpenEmp", "50700", "Clock", "1.0", "App", meanwhile=[GOOD_REPORT]),
        line("CloseEmp", "Clock", "50700", "50610", meanwhile=[line("answers", "0")]),
        line("Execute", "50700", STOP, "Clock", "50610", "1")]),
    "open-without-report": "\n".join([
        line("OpenEmp", "50700", "Weather", "1.0", "App"),
        line("OpenEmp", "50700", "Weather", "1.0", "App", meanwhile=[GOOD_REPORT])]),
    "open-fails-to-start": line("starts fail") + "\n" + line("OpenEmp", "50700", "Script", "1", "A"),
    "open-and-mount-fails": line("mounts fail") + "\n" + line("OpenEmp", "50700", "Clock", "1", "A"),
    "reuse": line("OpenEmp", "50704", "Player", "1.0", "App"),
    "refusal": line("OpenEmp", "50704", "Solo", "1.0", "App"),
    "another-server": line("OpenEmp", "50704", "Movie", "1.0", "App", meanwhile=[GOOD_REPORT]),
    "open-of-group": line("OpenEmp", "50700", "Drum", "1.0", "App", meanwhile=[
        line("Execute", "", "__BROKER_CMD_NOTIFY_GROUPINGEMP_SERVER", "Band", "50403"),
        GOOD_REPORT]),
    "open-in-running-group": line("OpenEmp", "50700", "Tenor", "1.0", "App", meanwhile=[
        line("answers", "1"), line("answers", "1", meanwhile=[GOOD_REPORT])]),
    "open-of-launcher": line("OpenEmp", "50700", "Sport", "1.0", "App", meanwhile=[
        line("answers", "1", meanwhile=[GOOD_REPORT])]),
    "open-of-deaf-launcher": line("OpenEmp", "50700", "Sport", "1.0", "App", meanwhile=[
        line("garbage", "", "\x80\x01")]),
    "two-opens-at-once": line("OpenEmp", "50700", "Weather", "1.0", "App", meanwhile=[
        line("OpenEmp", "50704", "Weather", "1.0", "App"), GOOD_REPORT]),
    "stop-during-open": line("OpenEmp", "50700", "Weather", "1.0", "App", meanwhile=[
        line("Execute", "50700", STOP, "Weather", "50610", "1"), GOOD_REPORT]),
    "close": line("CloseEmp", "Player", "50701", "50601", meanwhile=[line("answers", "1")]),
    "close-during-failing-open": line("OpenEmp", "50700", "Clock", "1.0", "App", meanwhile=[
        line("CloseEmp", "Clock", "50700", "50610")]),
    "close-of-dead": line("CloseEmp", "Player", "50701", "50601", meanwhile=[line("hangs up")]),
    "close-of-group": line("CloseEmp", "Alto", "50702", "50605", meanwhile=[line("answers", "0")]),
    "set-debug-level": line("SetDebugLevel", "3", meanwhile=[line("answers", "0", "1")] * 5),
    "bad-debug-level": line("SetDebugLevel", "65536"),
    "enable-ping": line("EnablePing", "1"),
    "sweep": line("SweepZombies", meanwhile=[
        line("answers"), line("refuses"), line("answers", "0", "1")]),
    "close-all": line("CloseAll", "App", "Widget", meanwhile=[
        line("answers", "0", "EMP_OWNS_APP_ID"), line("answers", "0")]),
    "get-state": line("GetState"),
    "where": "\n".join(line("Where", emp) for emp in (
        "Weather", "Movie", "Player", "Drum", "Sport", "Nowhere", "../Weather", "\xff\xfe", "")),
    "get-opens": "\n".join([
        line("OpenEmp", "50700", "Weather", "1.0", "App", meanwhile=[line("GetOpens"), GOOD_REPORT]),
        line("OpenEmp", "5\xc3", "No\xffwhere" + "\xc3\xa4" * 28, "1.0", "App"),
        line("GetOpens")]),
    "state-of-odd-names": "\n".join([
        line("Execute", "1", LAUNCHER, "\xff\xfe", "5\xc3"), line("GetState")]),
    "pings": "\n".join([line("a round of pings")] * 6 + [line("GetState")]),
    "unmount-fails": "\n".join([
        line("unmounts fail"), line("CloseEmp", "Movie", "50701", "50603",
                                    meanwhile=[line("answers", "0")]),
        line("Execute", "50701", STOP, "Movie", "50603", "1")]),
    "across-five-digits": "\n".join(
        [line("OpenEmp", "50700", "Movie", "1.0", "App", meanwhile=[GOOD_REPORT])] * 5 +
        [line("OpenEmp", "50700", "Movie", "1.0", "App", meanwhile=[
            line("Execute", "", REPORT, "10000", "50611|700006", RUNS, "0002")])]),
}

REPORTS = {
    "good": line("99999", "50610|901", RUNS, "0001"),
    "of-opener": line("@", "50610|901", RUNS, "0001"),
    "cut": line("12345", "/run/emp.sock|700003", RUNS, "0002"),
    "cut-of-two": line("12345", "50610|5", RUNS, "0002"),
    "twice": line("7", "50610|901", RUNS, "0001") + "\n" + line("7", "50611|902", RUNS, "0003"),
    "of-nobody": line("8", "50610|901", RUNS, "0001"),
    "largest": line("4294967295", "50610|2147483647", RUNS, "0001"),
    "beyond": line("4294967296", "50610|901", RUNS, "0001"),
    "negative": line("-7", "-1|-901", RUNS, "0001"),
    "no-pid": line("7", "50610", RUNS, "0001"),
    "bad-pid": line("@", "50610|x", RUNS, "0001") + "\n" + line("@", "50610|9", RUNS, "0001"),
    "pid-0": line("@", "50610|0", RUNS, "0001"),
    "no-option": line("@", "50610|901", RUNS, ""),
    "failed": line("@", "50610|901", "__SERVER_FAIL_TO_RUN", "0001"),
    "empty": line("", "", "", ""),
}

# ---- Messages ----

STOP_FIELD, VOID, BOOL, I32, STRING, STRUCT, MAP, LIST = 0, 1, 2, 8, 11, 12, 13, 15


def text(value):
    data = value.encode("latin-1")
    return struct.pack(">i", len(data)) + data


def field(number, value):
    if isinstance(value, bool):
        return struct.pack(">bhb", BOOL, number, value)
    if isinstance(value, int):
        return struct.pack(">bhi", I32, number, value)
    if isinstance(value, bytes):
        return struct.pack(">bh", STRUCT, number) + value
    return struct.pack(">bh", STRING, number) + text(value)


def fields(*values):
    """A structure whose fields have the numbers 1, 2, ..."""
    return b"".join(field(i, value) for i, value in enumerate(values, 1)) + bytes([STOP_FIELD])


def message(method, *values):
    return struct.pack(">I", 0x80010001) + text(method) + struct.pack(">i", 7) + fields(*values)


def old_message(method, *values):
    """As those write it who do not tell a version."""
    return text(method) + struct.pack(">bi", 1, 7) + fields(*values)


def connection(*messages, service="B", meanwhile=()):
    return "\n".join([service, *meanwhile]).encode("latin-1") + b"\0" + b"".join(messages)


def info(emp, client, port):
    return fields(emp, client, port, 99996, "127.0.0.1")


def wire_seeds():
    opened = message("OpenEmp", "50700", "Weather", "1.0", "App")
    seeds = {
        "open": connection(opened, meanwhile=[GOOD_REPORT]),
        "close": connection(message("CloseEmp", info("Player", "50701", "50601")),
                            meanwhile=[line("answers", "0")]),
        "several": connection(message("OpenEmp", "50704", "Player", "1.0", "App"),
                              message("Execute", *COMMANDS["version"]),
                              message("CloseEmp", info("Player", "50704", "50601"))),
        "old": connection(old_message("OpenEmp", "50704", "Player", "1.0", "App")),
        "half": connection(opened[:40]),
        "unknown-method": connection(message("Nothing", "1"), opened),
        "unknown-fields": connection(opened[:-1] + field(9, 1) + field(10, "x") +
                                     struct.pack(">bhbi", LIST, 11, I32, 1) + bytes(4) +
                                     struct.pack(">bhbbi", MAP, 12, STRING, BOOL, 1) + text("k") +
                                     b"\1" + field(13, fields(1, "2")) + bytes([STOP_FIELD])),
        **{f"announces-elements-{kind}": connection(
            opened[:-1] + struct.pack(">bhbi", LIST, 9, kind, 0x7FFFFFFF) + bytes(9))
           for kind in (STOP_FIELD, VOID, BOOL, I32, STRUCT, MAP, LIST)},
        "announces-2-gb": connection(struct.pack(">Ii", 0x80010001, 0x7FFFFFFF) + b"OpenEmp"),
        "garbage": connection(bytes(range(255, 0, -1))),
        "set-debug-level": connection(message("SetDebugLevel", 4), service="A"),
        "bad-request": connection(message("SetDebugLevel", -1), message("CloseAll", "", ""),
                                  service="A"),
        "enable-ping": connection(message("EnablePing", True), service="A"),
        "sweep": connection(message("SweepZombies"), service="A", meanwhile=[line("answers")]),
        "close-all": connection(message("CloseAll", "App", "Widget"), service="A",
                                meanwhile=[line("answers", "0", "EMP_OWNS_APP_ID")] * 3),
        "get-state": connection(message("GetState"), service="A"),
        "where": connection(message("Where", "Player"), message("Where", ""), service="A"),
        "get-opens": connection(message("GetOpens"), service="A"),
    }
    for name, command in COMMANDS.items():
        seeds["command-" + name] = connection(message("Execute", *command),
                                              meanwhile=DURING.get(name, ()))
    return seeds


# ---- Texts ----

EMP_CONFIGS = {
    "version": "<?xml version='1.0'?>\n<Emp><Version>1.250</Version></Emp>",
    "group": "<Emp>\n <Version>2.1</Version>\n <GroupingEmps>\n  <Name> Drum </Name>\n"
             "  <Name>Ba<![CDATA[s]]>s</Name><Name/>\n </GroupingEmps>\n</Emp>\n",
    "other-root": "<Plugin><Version>1.0</Version></Plugin>",
    "no-number": "<Emp><Version>1.x</Version></Emp>",
    "not-a-number": "<Emp><Version>nan</Version></Emp>",
    "half": "<Emp><Version>1.2",
    "entities": "<!DOCTYPE Emp [<!ENTITY a 'b'>]><Emp><GroupingEmps><Name>&a;&#65;&amp;</Name>"
                "</GroupingEmps></Emp>",
    "utf-16": "\xff\xfe" + "".join(c + "\0" for c in "<Emp><Version>3.0</Version></Emp>"),
    "empty": "",
}
POLICIES = {
    "node": "<Policy><15_vok url=\"http://log/\" queue_max=\"10\" expiration='20' loglevel=\"3\"/>"
            "</Policy>",
    "named-node": "<Policies><Policy name=\"15_vok\" url=\"http://log/\"/></Policies>",
    "other-node": "<Policy><16_other url=\"\"/></Policy>",
    "opaque": "<!DOCTYPE p [<!ELEMENT p (#PCDATA)> <!-- > -->]><!-- <1> --><?x <2> ?>"
              "<p a=\"<3>\"><![CDATA[<4>]]><15_vok url='u'>text</15_vok></p>",
    "numbers": "<15_vok queue_max=\"99999999999999999999\" expiration=\"-1\" loglevel=\"x\"/>",
    "half": "<15_vok url=\"http",
    "empty": "",
}
MOUNTINFOS = {
    "image": "/opt/down/emps/empClock\n"
             "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
             "36 22 7:0 / /opt/down/emps/empClock ro,nosuid,nodev - squashfs /dev/loop0 ro\n",
    "escaped": "/opt/a b\n36 22 7:0 / /opt/a\\040b ro master:1 - squash\\134fs /dev/lo\\011op ro\n",
    "twice": "/m\n36 22 7:0 / /m ro - ext4 a ro\n37 22 7:1 / /m ro - erofs b ro\n",
    "half-escape": "/m\\04\n36 22 7:0 / /m\\04 ro - ext4 a ro\n36 22 7:0 / /m\\777 ro - ext4 a ro",
    "odd-lines": "/m\n\n \n36 22 70 / /m ro - ext4 a ro\n36 22 7:x / /m ro - ext4 a ro\n"
                 "36 22 7:4294967296 / /m ro - ext4 a ro\n36 22 7:1 / /m ro ext4\n36 22 7:1 / /m -",
    "no-line-end": "/m\n36 22 7:0 / /m ro - ext4",
    "empty": "",
}
OS_RELEASES = {
    "quoted": "PRETTY_NAME\nNAME=\"Debian\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n",
    "escaped": "N\nN=\"a \\\" \\$b \\`c \\\\ \\d\"\n",
    "single": "N\nN='a \\ \"b'\"c\"d\\ e f\n",
    "twice": "N\nN=1\nN=2\r\n",
    "half": "N\n N=1\nN=\"open",
    "empty": "",
}


XML_WORDS = ["<!DOCTYPE ", "<!--", "-->", "<![CDATA[", "]]>", "<?xml", "?>", "</", "/>", "&lt;", "&#",
             "<Emp>", "</Emp>", "<Version>", "</Version>", "<GroupingEmps>", "<Name>", "</Name>",
             "<15_vok", "name=\"15_vok\"", "url=\"", "queue_max=\"", "expiration=\"", "loglevel=\"",
             "encoding=\"UTF-16\"", "[<!ENTITY "]


def write_dictionary(name, words):
    quoted = (re.sub(r'[^ -!#-\[\]-~]', lambda byte: f"\\x{ord(byte[0]):02x}", word)
              for word in sorted(words))
    (FOLDER / f"{name}.dict").write_text("".join(f'"{word}"\n' for word in quoted))


def main():
    seeds = {
        "wire": wire_seeds(),
        "calls": {**CALLS, **{"command-" + name: line("Execute", *command,
                                                      meanwhile=DURING.get(name, ()))
                              for name, command in COMMANDS.items()}},
        "execute": {name: line(*command, meanwhile=DURING.get(name, ()))
                    for name, command in COMMANDS.items()},
        "report": REPORTS,
        "emp_config": EMP_CONFIGS,
        "policy": POLICIES,
        "mountinfo": MOUNTINFOS,
        "os_release": OS_RELEASES,
    }
    for target, inputs in seeds.items():
        folder = CORPUS / target
        folder.mkdir(parents=True, exist_ok=True)
        for old in folder.glob("seed-*"):
            old.unlink()
        for name, data in inputs.items():
            data = data if isinstance(data, bytes) else data.encode("latin-1")
            (folder / f"seed-{name}").write_bytes(data)

    blocks = [*CALLS.values(), *REPORTS.values(), *seeds["execute"].values()]
    write_dictionary("broker", {
        word.lstrip() for block in blocks for word in re.split("[\t\n]", block) if word.strip()})
    write_dictionary("xml", XML_WORDS)


if __name__ == "__main__":
    main()
