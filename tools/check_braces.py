#!/usr/bin/env python3
"""Checks that every if, else, for, while and do has braces, and that a counter is written ++i if its value is unused.

    tools/check_braces.py [ROOT]

Reads all C and C++ sources, because clang-tidy checks only the programs. Exits 1 if anything is found.
"""
import pathlib
import re
import sys

sys.dont_write_bytecode = True

from check_comments import sources  # noqa: E402

# Text that may contain words and brackets that are not code. Numbers are included because their separators look like
# quotes.
NOT_CODE = re.compile(r"""R"(?P<mark>[^()\s]*)\(.*?\)(?P=mark)"
                        | "(?:\\.|[^"\\\n])*" | '(?:\\.|[^'\\\n])+' | \b\d[\w']*
                        | //[^\n]* | /\*.*?\*/ | ^[ \t]*\#(?:\\\n|[^\n])*""", re.DOTALL | re.MULTILINE | re.VERBOSE)
KEYWORD = re.compile(r"\b(?:(?P<condition>if|for|while)\b(?:\s+constexpr)?\s*\(|(?:else|do)\b)")
COUNTED_AFTER = re.compile(r"(?:\+\+|--)(?=\s*([;),]))")
COUNTER_PART = re.compile(r"(?:\w+|\.|->|::)$")
LABEL = re.compile(r"\b(?:case\b[^;{}?]*|default\s*):$")


def without_text(source):
    """Returns the source with strings, comments and preprocessor lines emptied; the lines keep their numbers."""
    return NOT_CODE.sub(lambda found: "_" + "\n" * found[0].count("\n"), source)


def end_of_condition(code, begin):
    """Returns the position just past the bracket that closes the one before begin."""
    depth, end = 1, begin
    while depth > 0 and end < len(code):
        depth += {"(": 1, ")": -1}.get(code[end], 0)
        end += 1
    return end


def begin_of_bracket(code, end):
    """Returns the position of the opening bracket that encloses the position before end."""
    depth = 1
    while depth > 0 and end > 0:
        end -= 1
        depth += {")": 1, "]": 1, "}": 1, "(": -1, "[": -1, "{": -1}.get(code[end], 0)
    return end


def begin_of_counter(code, end):
    """Returns the start of the expression that ends just before end, such as a name or an element."""
    while end > 0:
        part = COUNTER_PART.search(code, max(0, end - 100), end)
        if code[end - 1] in ")]":
            end = begin_of_bracket(code, end - 1)
        elif part:
            end = part.start()
        else:
            break
    return end


def is_unused(code, begin, after):
    """Whether the value of the expression at begin is unused. after: the character that follows the expression."""
    before = code[:begin].rstrip()
    if before.endswith(","):
        return code[:begin_of_bracket(code, begin)].rstrip().endswith("for")
    if before.endswith("{"):
        return after != ","
    return before.endswith((";", "}", ")")) or LABEL.search(before) is not None


def findings(source):
    """Returns the line number and the advice of each finding."""
    code = without_text(source)
    result = []
    for found in KEYWORD.finditer(code):
        end = end_of_condition(code, found.end()) if found["condition"] else found.end()
        body = code[end:].lstrip()
        is_end_of_do = found["condition"] == "while" and code[:found.start()].rstrip().endswith("}") and body[:1] == ";"
        is_else_if = found[0] == "else" and re.match(r"if\b", body)
        if body[:1] != "{" and not is_end_of_do and not is_else_if:
            result.append((code.count("\n", 0, found.start()) + 1, f"put braces around the body of this {found[0].rstrip(' (')}"))
    for found in COUNTED_AFTER.finditer(code):
        begin = begin_of_counter(code, found.start())
        counter = code[begin:found.start()]
        if counter and is_unused(code, begin, found[1]):
            result.append((code.count("\n", 0, begin) + 1, f"write {found[0]}{counter}, not {counter}{found[0]}"))
    return sorted(result)


def check(root):
    wrong, files = [], 0
    for path in sources(root):
        files += 1
        wrong += [f"{path.relative_to(root).as_posix()}:{line}: {advice}"
                  for line, advice in findings(path.read_text(encoding="utf-8"))]
    print("".join(line + "\n" for line in wrong), end="")
    print(f"checked the braces and counters of {files} files, {len(wrong)} findings")
    return files > 0 and not wrong


if __name__ == "__main__":
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).resolve().parent.parent)
    sys.exit(0 if check(root.resolve()) else 1)
