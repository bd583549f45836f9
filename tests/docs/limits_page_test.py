#!/usr/bin/env python3
"""The numbers of docs/limits.md are those of the code."""
import pathlib
import re
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
ROW = re.compile(r"^\| [^|]+ \| ([\d,]+) \| `([^`]+)` `([A-Z0-9_]+)` \|$", re.MULTILINE)
MOST_IMPORTANT = {"MAX_CONNECTIONS", "MAX_PAYLOAD_BYTES", "STALL_US", "EXTENDED_TIMESTAMP", "IDLE_STREAM_US"}


def value_in_code(file, name):
    text = (ROOT / file).read_text(encoding="utf-8")
    found = re.search(rf"(?:constexpr [\w:]+ {name} = |#define {name} )([\w *]+)", text)
    if found is None:
        raise AssertionError(f"{file} has no {name}")
    product = 1
    for factor in found[1].split("*"):
        product *= int(factor.strip().rstrip("uUlL"), 0)
    return product


class the_page_of_limits(unittest.TestCase):
    def test_has_the_numbers_of_the_code(self):
        page = (ROOT / "docs" / "limits.md").read_text(encoding="utf-8")
        table = page.split("## The numbers")[1]
        rows = ROW.findall(table)
        lines = [line for line in table.splitlines() if line.startswith("| ") and "`" in line]
        self.assertEqual(len(rows), len(lines), "a row that is not read")
        self.assertLessEqual(MOST_IMPORTANT, {name for _, _, name in rows})
        for value, file, name in rows:
            with self.subTest(name):
                self.assertEqual(int(value.replace(",", "")), value_in_code(file, name))

    def test_gives_the_same_numbers_in_the_text_above_the_table(self):
        text = (ROOT / "docs" / "limits.md").read_text(encoding="utf-8").split("## The numbers")[0]
        milliseconds = value_in_code("rtmp/chunk_format.h", "EXTENDED_TIMESTAMP")
        seconds = milliseconds // 1000
        self.assertIn(f"{seconds // 3600} h {seconds // 60 % 60} min {seconds % 60} s", text)
        self.assertIn(f"{milliseconds:,} ms", text)
        self.assertIn(f"{value_in_code('core/limits.h', 'MAX_CONNECTIONS')} connections", text)
        self.assertIn(f"takeover after {value_in_code('app/publisher_media.cpp', 'STALL_US') / 1e6} s", text)


if __name__ == "__main__":
    unittest.main()
