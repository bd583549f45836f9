#!/usr/bin/env python3
"""Compares docs/messages.md with the sources of the server, in both directions and byte for byte.

    tools/check_messages.py [ROOT]

Prints every text that is on one side only, and exits with 1 if there is one. Its rules:

In the sources, a printed text is a string literal that ends with a newline, or one passed directly to a printing
function. Adjacent literals are one. An assertion is the expression of a CHECK, or the text that reports a failed
unlock. A dump built from pieces must have each of its words on the page; the unit tests compare the examples on the
page with real dumps. Only base/diag and the dump of a control packet print.

On the page, a text is the code span at the beginning of a table row, without its newline. It may be followed by "(no
newline)" or "(standard output)". Under the heading "Assertions" it is an expression.
"""
import pathlib
import re
import sys

PAGE = "docs/messages.md"
FOLDERS = ["amf", "app", "base", "comm_socket", "control", "core", "relay", "rtmp"]
NOT_THE_SERVER = ["comm_socket/examples/"]
ASSERTIONS_HEADING = "Assertions"

PRINTERS = {"diag", "refuse", "diag_block", "diag_stdout", "fputs"}
STANDARD_OUTPUT_PRINTERS = {"diag_stdout"}
PASSED_ON = "%s"  # diag("%s", text): the text itself is a literal elsewhere and is checked there
OTHER_PRINTERS = re.compile(r"\b(?:v?f?d?printf|puts|fputs|fwrite|perror|syslog|cout|cerr|clog)\b")
MAY_PRINT = ["base/diag.cpp", "base/diag.h", "comm_socket/packet_dump.cpp"]

DUMPS = ["amf/amf_dump.cpp", "comm_socket/packet_dump.cpp"]
NOT_WORDS = {"0123456789ABCDEF", "%.3f", "\\x"}

TOKEN = re.compile(r"""
    (?P<comment>//[^\n]*|/\*.*?\*/)
  | (?P<directive>^[ \t]*\#(?:[^\n]*\\\n)*[^\n]*)
  | (?P<string>"(?:\\.|[^"\\\n])*")
  | (?P<character>'(?:\\.|[^'\\\n])+')
  | (?P<word>[A-Za-z_]\w*)
  | (?P<space>\s+)
  | (?P<other>.)
""", re.VERBOSE | re.DOTALL | re.MULTILINE)
ESCAPE = re.compile(r"\\(.)")
ESCAPED = {"n": "\n", "t": "\t", "0": "\0"}
ROW = re.compile(r"^\| `(?P<text>[^`]+)`(?: \((?P<note>[^)]*)\))? \|")
UNLOCK_NAMES = {"unlock_expression", "OTHER_UNLOCK_EXPRESSION"}

NO_NEWLINE = "no newline"
STANDARD_OUTPUT = "standard output"


def tokens(source):
    """Returns (kind, text, offset) for each token except comments, spaces and directives. String literals are
    unescaped, and adjacent ones are joined."""
    result = []
    for found in TOKEN.finditer(source):
        kind, text = found.lastgroup, found.group()
        if kind in ("comment", "directive", "space"):
            continue
        if kind == "string":
            text = ESCAPE.sub(lambda escape: ESCAPED.get(escape[1], escape[1]), text[1:-1])
            if result and result[-1][0] == "string":
                text = result.pop()[1] + text
        result.append((kind, text, found.start()))
    return result


def balanced(source, start):
    """Returns the text between the parenthesis at start and its closing one."""
    depth = 0
    for offset in range(start, len(source)):
        depth += {"(": 1, ")": -1}.get(source[offset], 0)
        if depth == 0:
            return source[start + 1:offset]
    raise ValueError("a parenthesis is not closed")


class Sources:
    def __init__(self, root):
        self.texts = {}  # text and note -> where
        self.assertions = {}
        self.words = {}
        self.wrong = []
        self.files = 0
        for path in sorted(p for folder in FOLDERS for p in (root / folder).rglob("*") if p.suffix in (".h", ".cpp")):
            name = path.relative_to(root).as_posix()
            if not any(name.startswith(other) for other in NOT_THE_SERVER):
                self.files += 1
                self.read(name, path.read_text(encoding="utf-8"))

    def read(self, name, source):
        found = tokens(source)
        for position, (kind, text, offset) in enumerate(found):
            where = f"{name}:{source.count(chr(10), 0, offset) + 1}"
            before = [token[1] for token in found[max(0, position - 2):position]]
            after = found[position + 1][1] if position + 1 < len(found) else ""
            if kind == "string":
                self.add_literal(name, where, text, before)
            elif kind == "word" and text == "CHECK" and after == "(":
                self.assertions[" ".join(balanced(source, found[position + 1][2]).split())] = where
            elif kind == "word" and OTHER_PRINTERS.fullmatch(text) and name not in MAY_PRINT:
                self.wrong.append(f"{where}: {text} prints without base/diag")

    def add_literal(self, name, where, text, before):
        printer = before[0] if len(before) == 2 and before[1] == "(" and before[0] in PRINTERS else None
        if len(before) == 2 and before[1] == "=" and before[0] in UNLOCK_NAMES:
            self.assertions[text] = where
        elif name in DUMPS and not printer and not text.startswith("WARNING: "):
            if text not in NOT_WORDS and re.search("[A-Za-z]{2}", text):
                self.words[text.strip()] = where
        elif printer and text != PASSED_ON or (text.endswith("\n") and len(text) > 1):
            note = None if text.endswith("\n") else NO_NEWLINE
            if printer in STANDARD_OUTPUT_PRINTERS:
                note = STANDARD_OUTPUT
            self.texts[(text.removesuffix("\n"), note)] = where


class Page:
    def __init__(self, root):
        self.whole = (root / PAGE).read_text(encoding="utf-8")
        self.texts = {}
        self.assertions = {}
        self.wrong = []
        heading = ""
        for number, line in enumerate(self.whole.splitlines(), 1):
            if line.startswith("#"):
                heading = line.lstrip("# ")
            row = ROW.match(line)
            if row:
                known, key = ((self.assertions, row["text"]) if heading == ASSERTIONS_HEADING else
                              (self.texts, (row["text"], row["note"])))
                if key in known:
                    self.wrong.append(f"{PAGE}:{number}: listed twice: {row['text']}")
                known[key] = f"{PAGE}:{number}"


def shown(key):
    text, note = key if isinstance(key, tuple) else (key, None)
    return f"{text!r} ({note})" if note else repr(text)


def check(root):
    sources, page = Sources(root), Page(root)
    wrong = sources.wrong + page.wrong
    for what, printed, explained in (("text", sources.texts, page.texts),
                                     ("assertion", sources.assertions, page.assertions)):
        wrong += [f"{printed[key]}: {what} not on the page: {shown(key)}" for key in printed.keys() - explained.keys()]
        wrong += [f"{explained[key]}: {what} not in the sources: {shown(key)}"
                  for key in explained.keys() - printed.keys()]
    wrong += [f"{where}: word of a dump not on the page: {word!r}" for word, where in sources.words.items()
              if word not in page.whole]
    print("".join(line + "\n" for line in sorted(wrong)), end="")
    print(f"compared {len(page.texts)} texts and {len(page.assertions)} assertions with {sources.files} files, "
          f"{len(wrong)} differences")
    if wrong:
        print(f"What to do: {PAGE} explains every line that the server prints, and only those; change it with the source.")
    return not wrong and sources.files > 0 and len(page.texts) > 0 and len(page.assertions) > 0


if __name__ == "__main__":
    sys.exit(0 if check(pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).resolve().parent.parent).resolve()) else 1)
