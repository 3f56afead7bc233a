"""As much of C++ as it takes to find the calls of macros and the strings of a file."""
import collections
import re

GAP = "\ue000"  # within a string: an expression whose value only the run knows
CONTROL = {"if", "for", "while", "switch", "catch"}
NEGATIONS = {"EXPECT_FALSE", "ASSERT_FALSE", "EXPECT_NE", "ASSERT_NE", "Not"}

TOKEN = re.compile(r"""
    (?P<space> \s+ | \\\n | //[^\n]* | /\*.*?\*/ )
  | (?P<raw> R"(?P<mark>[^()\s]*)\((?P<body>.*?)\)(?P=mark)" )
  | (?P<text> "(?:\\.|[^"\\])*" )
  | (?P<char> '(?:\\.|[^'\\])+' )
  | (?P<word> [A-Za-z_]\w* | \d[\w.']* )
  | (?P<sign> :: | -> | << | . )""", re.X | re.S)
DEFINE = re.compile(r"^[ \t]*#[ \t]*define[ \t]+(\w+)\(([^)]*)\)((?:\\\n|[^\n])*)", re.M)
ESCAPE = re.compile(r"\\(?:x([0-9A-Fa-f]+)|([0-7]{1,3})|(.))", re.S)

WILDCARD = re.compile(r"(?<!\\)(?:\.|\[[^]]*\])[+*]")  # in a regular expression

Token = collections.namedtuple("Token", "kind value line")  # a text's value is decoded


def decode(literal):
    def character(match):
        if match[1] or match[2]:
            return chr(int(match[1], 16) if match[1] else int(match[2], 8))
        return {"n": "\n", "t": "\t", "r": "\r", "a": "\a"}.get(match[3], match[3])
    return ESCAPE.sub(character, literal[1:-1])


def tokens_of(text):
    tokens, line = [], 1
    for match in TOKEN.finditer(text):
        if match["raw"]:
            tokens.append(Token("text", match["body"], line))
        elif match["text"]:
            tokens.append(Token("text", decode(match[0]), line))
        elif not match["space"]:
            tokens.append(Token("word" if match["word"] else "sign", match[0], line))
        line += match[0].count("\n")
    return tokens


def without_defines(text):
    return DEFINE.sub(lambda match: "\n" * match[0].count("\n"), text)


def arguments_at(tokens, opening):
    """The arguments in the bracket that opens there, and the index of what follows it."""
    depth, arguments = 0, [[]]
    for i in range(opening, len(tokens)):
        kind, value, _ = tokens[i]
        depth += kind == "sign" and (value in "([{") - (value in ")]}")
        if depth == 0:
            return arguments, i + 1
        if depth == 1 and (kind, value) == ("sign", ","):
            arguments.append([])
        elif i != opening:
            arguments[-1].append(tokens[i])
    return arguments, len(tokens)


def calls_of(tokens, names):
    """Name and arguments of each call of one of these."""
    for i, token in enumerate(tokens[:-1]):
        if token.kind == "word" and token.value in names and tokens[i + 1].value == "(":
            yield token, arguments_at(tokens, i + 1)[0]


class CStrings:
    """The string expressions of a file.

    Adjacent literals are one; so are literals that are added up, with a gap for what is added in
    between, unless it is a variable that this file sets to a string, or a function that returns
    one. What MatchesRegex is given counts as what it matches. What is printed (<<) or said not to
    be there is left out.
    """

    def __init__(self, text):
        self.tokens = tokens_of(without_defines(text))
        self._variables = {}  # what they were last set to
        self._functions = []  # name, place and what is returned
        self._find_functions()
        self.found = set()
        used, denied = set(), 0
        for i, token in enumerate(self.tokens):
            before = self.tokens[i - 1].value if i else ""
            if token.value in NEGATIONS:
                denied = max(denied, arguments_at(self.tokens, i + 1)[1])
            if token.kind == "sign" or i in used or before in ("+", ".", "->", "::"):
                continue  # no expression begins here
            whole, literals = self._sum(i)
            if not literals:
                continue
            used |= literals
            if before in ("=", "{"):
                name = next(t for t in reversed(self.tokens[:i]) if t.value not in "=[]{")
                self._variables[name.value] = whole
            if before == "(" and self.tokens[i - 2].value == "MatchesRegex":
                whole = re.sub(r"\\(.)", r"\1", WILDCARD.sub(GAP, whole))
            if before != "<<" and i >= denied:
                self.found.add(whole)

    def _find_functions(self):
        name, found = "", []
        for i, token in enumerate(self.tokens[:-1]):
            if token.kind == "word" and self.tokens[i + 1].value == "(":
                end = arguments_at(self.tokens, i + 1)[1]
                begins = end < len(self.tokens) and self.tokens[end].value in ("{", "const")
                if begins and token.value not in CONTROL:
                    name = token.value
            elif token.value == "return":
                whole, literals = self._sum(i + 1)
                if literals:
                    found.append((name, i, whole))
        self._functions = found

    def _sum(self, i):
        """What is added up from i on, and which tokens are its literals."""
        whole, literals, i = self._operand(i)
        while i + 1 < len(self.tokens) and self.tokens[i][:2] == ("sign", "+"):
            value, more, i = self._operand(i + 1)
            whole, literals = whole + value, literals | more
        return whole, literals

    def _operand(self, i):
        """Its text, its literals and its end."""
        start, tokens = i, self.tokens
        while i < len(tokens) and tokens[i].kind == "text":
            i += 1
        if i > start:
            return "".join(token.value for token in tokens[start:i]), set(range(start, i)), i
        while i < len(tokens) and tokens[i].kind != "text":
            if tokens[i].kind == "sign" and tokens[i].value in "([{":
                end = arguments_at(tokens, i)[1]
                if tokens[i - 1].value == "string" and tokens[i + 1].kind == "text":
                    return self._operand(i + 1)[:2] + (end,)  # std::string("literal")
                i = end
            elif tokens[i].kind == "word" or tokens[i].value in (".", "->", "::"):
                i += 1
            else:
                break
        return self._value(start, i), set(), max(i, start + 1)

    def _value(self, start, end):
        name = self.tokens[start].value
        if end == start + 1:
            return self._variables.get(name, GAP)
        same = [function for function in self._functions if function[0] == name]
        if same and arguments_at(self.tokens, start + 1)[1] == end:  # nothing but its call
            return min(same, key=lambda function: abs(function[1] - start))[2]
        return GAP
