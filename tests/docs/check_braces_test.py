#!/usr/bin/env python3
"""tools/check_braces.py finds bodies without braces and counters written i++: run on sources made for the purpose."""
import contextlib
import io
import pathlib
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.dont_write_bytecode = True
sys.path.insert(0, str(ROOT / "tools"))
import check_braces as CHECK  # noqa: E402


class CheckBraces(unittest.TestCase):
    def lines_found(self, source):
        return [line for line, advice in CHECK.findings(source)]

    def test_a_body_without_braces_is_found(self):
        for source in ("if (a(b))\n    c();\n", "if constexpr (a)\n    b();\n", "for (auto b : c)\n    d();\n",
                       "while (a)\n    b();\n", "while (a);\n", "do\n    a();\nwhile (b);\n",
                       "if (a) {\n} else\n    b();\n", "} else if (a)\n    b();\n"):
            self.assertTrue(self.lines_found(source), source)

    def test_each_body_without_braces_is_found_at_its_line(self):
        self.assertEqual(self.lines_found("// a\n/* b\n */\nfor (;;)\n    if (a)\n        b();\n"), [4, 5])

    def test_a_body_with_braces_passes(self):
        self.assertEqual(self.lines_found("if (a(b) &&\n    c) {\n} else if (d) {\n} else {\n}\n"
                                          "do {\n} while (a);\nfor (;;) {\n    while (a) {\n    }\n}\n"), [])

    def test_a_counter_whose_value_is_unused_is_found(self):
        for source in ("for (int i = 0; i < 9; i++) {\n}\n", "{\n    a->b.c[d]++;\n}\n", "a();\nb--;\n",
                       "for (; a; b = c, d++) {\n}\n", "for (; a; b++, --c) {\n}\n", ";\na[b + 1]++;\n", ";\na[b - 1]--;\n",
                       ";\n(*a)++;\n", ";\na().b++;\n", ";\na::b++;\n", "case 1:\n    a++;\n", "default:\n    a--;\n"):
            self.assertTrue(self.lines_found(source), source)

    def test_a_counter_whose_value_is_used_passes(self):
        self.assertEqual(self.lines_found("*s++ = a;\nb(c++);\nb(d, c++);\nd = {e++, f};\nd = {f, e++};\nfor (;; ++i) {\n}\n"
                                          "a = b ? c : d++;\nreturn a++;\na[b++] = c;\n"), [])

    def test_words_that_are_not_code_pass(self):
        self.assertEqual(self.lines_found('a("if (b) c;");  // if (d) e; i++;\nf = \'"\';  g = 1\'000;\n'
                                          'h = R"(if (j)\n k;)";\n#define L if (m) \\\n    n\n'), [])

    def test_a_finding_names_file_line_and_what_to_do(self):
        with tempfile.TemporaryDirectory() as directory:
            path = pathlib.Path(directory, "tests", "a_test.cpp")
            path.parent.mkdir()
            path.write_text("void a() {\n    if (b)\n        c++;\n}\n", encoding="utf-8")
            printed = io.StringIO()
            with contextlib.redirect_stdout(printed):
                self.assertFalse(CHECK.check(pathlib.Path(directory)))
        self.assertIn("tests/a_test.cpp:2: put braces around the body of this if\n", printed.getvalue())
        self.assertIn("tests/a_test.cpp:3: write ++c, not c++\n", printed.getvalue())

    def test_no_sources_do_not_pass(self):
        with tempfile.TemporaryDirectory() as directory, contextlib.redirect_stdout(io.StringIO()):
            self.assertFalse(CHECK.check(pathlib.Path(directory)))


if __name__ == "__main__":
    unittest.main()
