#!/usr/bin/env python3
"""tools/check_includes.py finds wrong includes, ways into the server's code, and rules that are not needed."""
import contextlib
import io
import pathlib
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.dont_write_bytecode = True
sys.path.insert(0, str(ROOT / "tools"))
import check_includes as CHECK  # noqa: E402

RULES = [(["rtmp/*"], [["base/clock.h", "base/diag.h"]]), (["base/*"], []),
         (["tests/e2e/*"], ["tests/support/*"]), (["tests/*"], ["*"])]
FILES = {"base/diag.h": "", "rtmp/chunk.cpp": '#include "base/diag.h"\n',
         "tests/e2e/relay_test.cpp": '#include "tests/support/client.h"\n', "tests/support/client.h": '#include "tests/bytes.h"\n',
         "tests/bytes.h": ""}


class Includes(unittest.TestCase):
    def check(self, files=None, rules=None):
        printed = io.StringIO()
        with tempfile.TemporaryDirectory() as directory, contextlib.redirect_stdout(printed):
            root = pathlib.Path(directory)
            for name, text in {**FILES, **(files or {})}.items():
                (root / name).parent.mkdir(parents=True, exist_ok=True)
                (root / name).write_text(text, encoding="utf-8")
            passed = CHECK.check(root, RULES + (rules or []))
        lines = printed.getvalue().splitlines()[:-1]
        self.assertEqual(passed, not lines)
        return lines

    def test_includes_that_the_rules_permit_pass(self):
        self.assertEqual(self.check(), [])

    def test_an_include_in_the_wrong_direction_is_found(self):
        self.assertEqual(self.check({"base/clock.h": '\n#include "rtmp/chunk.h"\n'}),
                         ["base/clock.h:2: may not include rtmp/chunk.h"])

    def test_an_end_to_end_test_reaches_the_server_through_no_header(self):
        self.assertEqual(self.check({"tests/bytes.h": '#include "base/diag.h"\n'}),
                         ["tests/e2e/relay_test.cpp: reaches the server's code: "
                          "tests/e2e/relay_test.cpp -> tests/support/client.h -> tests/bytes.h -> base/diag.h"])

    def test_an_end_to_end_test_reaches_the_server_through_no_source_of_a_header(self):
        self.assertEqual(self.check({"tests/support/client.cpp": '#include "base/diag.h"\n'}),
                         ["tests/e2e/relay_test.cpp: reaches the server's code: tests/e2e/relay_test.cpp -> "
                          "tests/support/client.h -> tests/support/client.cpp -> base/diag.h"])

    def test_a_rule_for_no_file_is_found(self):
        self.assertEqual(self.check(rules=[(["base/gone.h"], [])]), ["the rule for base/gone.h matches no file"])

    def test_a_permission_that_is_not_used_is_found(self):
        self.assertEqual(self.check({"bench/load.cpp": ""}, rules=[(["bench/*"], ["base/*"])]),
                         ["no file of bench/* includes base/* any more"])


if __name__ == "__main__":
    unittest.main()
