#!/usr/bin/env python3
"""Every log message of the broker is pinned by a test.

The messages come from the sources: level and format of every call of a logging macro, those of
single files included. One is pinned when a string expression in tests/ is the whole of it, the
conversions matching whatever stands there, with nothing but "<level> " and "<function>: " before
it. A message that is only a conversion is pinned when a string names its function.

First tries itself on examples. Prints what is not pinned, with file and line, and then exits
with 1.
"""
import collections
import pathlib
import re
import sys

sys.dont_write_bytecode = True  # a check leaves nothing behind

from cpp_text import CStrings, DEFINE, GAP, calls_of, tokens_of, without_defines

FOLDERS = ("broker", "open", "supervision", "registry", "rpc", "platform")

# What no test can make the broker log: (level, format), and why.
EXEMPT = {
    ("0", "Malloc for gpVokBrokerLibraryPath failed!"): "there is no memory for a short text",
    ("0", "Unmounting [%s] failed: [out of memory]."): "there is no memory for a small record",
    ("0", "An error occured during notifing . rc : [%d]"): "waking a waiter never fails",
}

END = "\x00"  # before and behind each string
CONVERSION = re.compile(r"%[-+ #0]*[\d*]*(?:\.[\d*]+)?(?:hh|h|ll|l|z|j|t)?([a-zA-Z%])")
NUMBER = rf"(?:[-+\d.]+|{GAP}|%[\d.]*l?[a-z])"  # "%d": a test may format what it expects
CONVERTED = {**dict.fromkeys("diufg", NUMBER), "%": "%"}

Macro = collections.namedtuple("Macro", "level format")  # the positions of these arguments
Message = collections.namedtuple("Message", "level format function place")


def add_macros(text, macros):
    """Adds the macros that hand their level and their format on to one of these."""
    for name, parameters, body in DEFINE.findall(text) * 2:  # whatever their order
        parameters = [parameter.strip() for parameter in parameters.split(",")]
        for called, arguments in calls_of(tokens_of(body), macros):
            macro = macros[called.value]
            if [token.value for token in arguments[macro.format]] == ["__VA_ARGS__"]:
                level = {token.value for token in arguments[macro.level]} & set(parameters)
                macros[name] = Macro(parameters.index(level.pop()), parameters.index("..."))


def messages_of(sources):
    levels = dict(re.findall(r"\b(LEVEL_\w+) = (\d)", "".join(sources.values())))
    common = {"PrintLog": Macro(1, 2)}
    for path, text in sources.items():
        if path.endswith(".h"):
            add_macros(text, common)
    for path, text in sources.items():
        macros = dict(common)
        add_macros(text, macros)
        del macros["PrintLog"]  # what the macros are made of
        for name, arguments in calls_of(tokens_of(without_defines(text)), macros):
            macro = macros[name.value]
            level = levels.get(arguments[macro.level][-1].value)
            formats = "".join(token.value if token.kind == "text" else END
                              for token in arguments[macro.format]).split(END)
            if level is None or not any(formats):
                raise SystemExit(f"{path}:{name.line}: level and format must be constants")
            function = arguments[0][0].value if arguments[0][0].kind == "text" else ""
            for text_of_choice in filter(None, formats):  # one, or those of a conditional
                yield Message(level, text_of_choice, function, f"{path}:{name.line}")


def pattern_of(message):
    """What a string must be from end to end to pin the message."""
    pieces = CONVERSION.split(message.format)  # text, conversion, text, ...
    if not "".join(pieces[::2]):
        function = re.escape(message.function) + r"(?:::\w+)?" if message.function else "(?!)"
        return f"{END}(?:{function}|{message.level} {function}: [^{END}]*){END}"
    for i, piece in enumerate(pieces):
        pieces[i] = CONVERTED.get(piece, f"[^{END}]*") if i % 2 else re.escape(piece)
    return rf"{END}(?:{message.level} )?(?:[\w:~]+: )?{''.join(pieces)}{END}"


def findings(sources, tests, exempt):
    """What is wrong, line by line, and how many messages there are."""
    strings = set().union(*(CStrings(text).found for text in tests.values()))
    strings = END + (END + END).join(strings) + END
    wrong, unused, count = [], set(exempt), 0
    for message in messages_of(sources):
        key = (message.level, message.format)
        pinned, count = re.search(pattern_of(message), strings), count + 1
        unused.discard(key)
        if not pinned and key not in exempt:
            wrong.append(f"{message.place}: no test pins {message.level} {message.format!r}")
        elif pinned and key in exempt:
            wrong.append(f"{message.place}: exempt, yet pinned: {message.format!r}")
    return wrong + [f"exempt, yet in no source: {key}" for key in sorted(unused)], count


EXAMPLE = r"""
    enum { LEVEL_ERROR = 0, LEVEL_DETAIL = 4 };
    #define LOG_AS(operation, level, ...) PrintLog(1, (level), __VA_ARGS__)
    #define OPEN_LOG(level, ...) \
        LOG_AS("OpenEmp", level, __VA_ARGS__)
    OPEN_LOG(LEVEL_DETAIL, "EMP:[%s], "  // two pieces
             "port:[%d].", strEmp.c_str(), nPort);  NO_LOG(LEVEL_ERROR, "nothing");
"""
EXAMPLES = (  # what stands in a test, and whether it pins that message
    (True, '"EMP:[Weather], port:[5000]."'),
    (True, '"EMP:[Wea" "ther], "  /* and */ "port:[-1]."'),
    (True, '"4 EMP:[], port:[0]."'),
    (True, '"4 OpenEmp: EMP:[], port:[0]."'),
    (True, '"EMP:[" + info.name(1) + "], port:[" + std::to_string(n) + "]."'),
    (True, 'const std::string s = "EMP:[x], "; Is(s + "port:[" + p->n[0] + "].");'),
    (True, 'std::string("EMP:[") + strEmp + "], port:[1]."'),
    (True, 'string Who() { return "[" + s + "], "; }  Is("EMP:" + Who() + "port:[1].");'),
    (True, 'MatchesRegex("EMP:\\\\[[a-z]+\\\\], port:\\\\[.+\\\\].")'),
    (True, 'R"(EMP:[a"b], port:[1].)"'),
    (False, ''),
    (False, '// "EMP:[Weather], port:[5000]."'),
    (False, 'MatchesRegex("EMP:\\\\[[a-z]+\\\\], port:.*")'),
    (False, 'HasSubstr("EMP:[Weather], port:[")'),
    (False, '"EMP:[Weather], port:[5000]. "'),
    (False, '"0 EMP:[Weather], port:[5000]."'),
    (False, '"EMP:[Weather], port:[none]."'),
    (False, 'strStart + "], port:[5000]."'),
    (False, '"more " + strEmp + "EMP:[Weather], port:[5000]."'),
    (False, 'EXPECT_FALSE(HasLine("EMP:[Weather], port:[5000]."))'),
    (False, 'EXPECT_TRUE(b) << "EMP:[Weather], port:[5000].";'),
)


def try_itself():
    key = ("4", "EMP:[%s], port:[%d].")
    for pins, test in EXAMPLES:
        wrong, count = findings({"x.cpp": EXAMPLE}, {"test": test}, {})
        assert count == 1 and [line[:9] for line in wrong] == ([] if pins else ["x.cpp:6: "]), test
        wrong, _ = findings({"x.cpp": EXAMPLE}, {"test": test}, {key: "an exemption"})
        assert bool(wrong) == pins, test
    assert findings({}, {"test": ""}, {key: "an exemption that outlived its message"})[0]


def main():
    try_itself()
    root = pathlib.Path(__file__).resolve().parent.parent

    def texts(folder):
        return {str(path.relative_to(root)): path.read_text(encoding="utf-8")
                for path in sorted((root / folder).rglob("*")) if path.suffix in (".h", ".cpp")}
    sources = {path: text for folder in FOLDERS for path, text in texts(folder).items()}
    wrong, count = findings(sources, texts("tests"), EXEMPT)
    print(*wrong, f"{count} messages, {len(wrong)} findings", sep="\n")
    return bool(wrong)


if __name__ == "__main__":
    sys.exit(main())
