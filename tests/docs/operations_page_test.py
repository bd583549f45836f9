#!/usr/bin/env python3
"""The lines of the log that docs/operations.md shows are those of docs/messages.md."""
import pathlib
import re
import unittest

DOCS = pathlib.Path(__file__).resolve().parent.parent.parent / "docs"
LINE = re.compile(r"^\| `([^`]+)`", re.MULTILINE)
VALUE = re.compile(r"%(?:lu|u|d|s|x)")


class the_page_of_operations(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.lines = LINE.findall((DOCS / "messages.md").read_text(encoding="utf-8"))
        page = (DOCS / "operations.md").read_text(encoding="utf-8")
        cls.section = page.split("## Read the log")[1].split("## At three")[0]

    def test_shows_a_log_as_the_server_writes_it(self):
        log = self.section.split("```text\n")[1].split("```")[0].splitlines()
        self.assertGreater(len(log), 10)
        known = [".*".join(re.escape(part) for part in VALUE.split(line)) for line in self.lines]
        for line in log:
            self.assertTrue(any(re.fullmatch(pattern, line) for pattern in known), line)

    def test_names_lines_that_exist(self):
        table = self.section.split("| line | what to do |")[1]
        named = LINE.findall(table)
        self.assertGreaterEqual(len(named), 5)
        for text in named:
            self.assertTrue(any(line.startswith(text) for line in self.lines), text)


if __name__ == "__main__":
    unittest.main()
