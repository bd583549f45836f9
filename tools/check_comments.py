#!/usr/bin/env python3
"""Checks that the comments of the C and C++ sources fill their lines.

    tools/check_comments.py [--write] [ROOT]

Finds comment lines over 110 columns, and paragraphs whose last line is a single word although other line breaks
would avoid it. --write refills such paragraphs; a comment after code has to be shortened by hand.
Exits 1 if anything is left.

A paragraph is a run of lines that hold only a comment, with slashes or with stars, and begin in the same column. An
empty line, a list item and a mark like NOLINT end it. Lines that are indented further, like a picture or an example,
are not changed.
"""
import pathlib
import re
import sys

COLUMNS = 110
NARROWEST = 80
FOLDERS = ["base", "amf", "rtmp", "core", "relay", "app", "control", "comm_socket", "tools", "tests", "fuzz", "bench"]
COMMENT_LINE = re.compile(r"^(?P<begin>\s*(?://|/?\*(?= )))(?P<space> *)(?P<text>.*)$")
ITEM = re.compile(r"(?:\d+\.|-) +")
MARK = re.compile(r"clang-format |NOLINT|fallthrough|IWYU ")
BLOCK_END = "*/"
TRAILING = re.compile(r'^(?:[^"/]|"(?:\\.|[^"\\])*"|/(?![/*]))*/[/*]')


class Paragraph:
    def __init__(self, first, begin, item):
        self.first = first  # index of its first line
        self.begin = begin  # up to and including the slashes or the star
        self.next = begin.replace("/*", " *")  # the same for its other lines
        self.item = item    # "1. " or "- " of a list, or empty
        self.words = []
        self.count = 0      # lines
        self.last_words = 0

    def add(self, text):
        words = text.split()
        if len(words) > 1 and words[-1] == BLOCK_END:
            words[-2:] = [f"{words[-2]} {BLOCK_END}"]
        self.words += words
        self.last_words = len(words)
        self.count += 1

    def filled(self):
        """Returns the filled lines, slightly narrower if the last one would otherwise be a single word."""
        fewest = self.broken_at(COLUMNS)
        for columns in range(COLUMNS, NARROWEST, -1):
            lines = self.broken_at(columns)
            if len(lines) > len(fewest):
                break
            if len(lines) == 1 or " " in lines[-1].removesuffix(" " + BLOCK_END)[len(self.begin) + 1 + len(self.item):]:
                return lines
        return fewest

    def broken_at(self, columns):
        lines = [f"{self.begin} {self.item}{self.words[0]}"]
        for word in self.words[1:]:
            if len(lines[-1]) + 1 + len(word) <= columns:
                lines[-1] += " " + word
            else:
                lines.append(f"{self.next} {' ' * len(self.item)}{word}")
        return lines


def paragraphs(lines):
    """Returns the paragraphs of a file that may be refilled."""
    result, current = [], None
    for index, line in enumerate(lines):
        found = COMMENT_LINE.match(line)
        text = found["text"] if found else ""
        if not text or MARK.match(text):
            current = None
            continue
        item = ITEM.match(text)
        indent = len(found["space"])
        if item and indent == 1:
            current = Paragraph(index, found["begin"], item[0])
            result.append(current)
            current.add(text[item.end():])
        elif current and current.next == found["begin"] and indent == 1 + len(current.item):
            current.add(text)
        elif indent == 1:
            current = Paragraph(index, found["begin"], "")
            result.append(current)
            current.add(text)
        else:
            current = None
    return result


def is_badly_filled(paragraph, lines):
    own = lines[paragraph.first:paragraph.first + paragraph.count]
    if any(len(line) > COLUMNS for line in own):
        return True
    return paragraph.count > 1 and paragraph.last_words == 1 and paragraph.filled() != own


def sources(root):
    """Returns the paths of all C and C++ sources."""
    return sorted(p for folder in FOLDERS for p in (root / folder).rglob("*") if p.suffix in (".h", ".cpp", ".c"))


def check_file(path, name, write):
    text = path.read_text(encoding="utf-8")
    lines = text.split("\n")
    bad = [paragraph for paragraph in paragraphs(lines) if is_badly_filled(paragraph, lines)]
    if write and bad:
        for paragraph in reversed(bad):
            lines[paragraph.first:paragraph.first + paragraph.count] = paragraph.filled()
        path.write_text("\n".join(lines), encoding="utf-8")
        bad = []
    wrong = [f"{name}:{paragraph.first + paragraph.count}: a paragraph is not filled"
             for paragraph in bad]
    filled = {index for paragraph in bad for index in range(paragraph.first, paragraph.first + paragraph.count)}
    wrong += [f"{name}:{index + 1}: a comment over {COLUMNS} columns" for index, line in enumerate(lines)
              if len(line) > COLUMNS and index not in filled and TRAILING.match(line)]
    return wrong


def check(root, write=False):
    wrong, files = [], 0
    for path in sources(root):
        files += 1
        wrong += check_file(path, path.relative_to(root).as_posix(), write)
    print("".join(line + "\n" for line in wrong), end="")
    print(f"checked the comments of {files} files, {len(wrong)} findings")
    if wrong:
        print("What to do: tools/check_comments.py --write refills paragraphs; shorten comments that follow code by hand.")
    return files > 0 and not wrong


if __name__ == "__main__":
    rest = [argument for argument in sys.argv[1:] if argument != "--write"]
    root = pathlib.Path(rest[0] if rest else pathlib.Path(__file__).resolve().parent.parent)
    sys.exit(0 if check(root.resolve(), "--write" in sys.argv) else 1)
