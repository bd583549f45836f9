#!/usr/bin/env python3
"""tools/check_comments.py finds badly filled comments and fills them: run on sources made for the purpose."""
import contextlib
import io
import pathlib
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.dont_write_bytecode = True
sys.path.insert(0, str(ROOT / "tools"))
import check_comments as CHECK  # noqa: E402

WORDS = ("word " * 21).strip()  # 104 columns
FULL = "// " + WORDS


class CheckComments(unittest.TestCase):
    def check(self, source, write=False):
        with tempfile.TemporaryDirectory() as directory:
            path = pathlib.Path(directory, "base", "a.cpp")
            path.parent.mkdir()
            path.write_text(source, encoding="utf-8")
            printed = io.StringIO()
            with contextlib.redirect_stdout(printed):
                passed = CHECK.check(pathlib.Path(directory), write)
            return passed, printed.getvalue(), path.read_text(encoding="utf-8")

    def expect_filled(self, source, filled):
        self.assertFalse(self.check(source)[0])
        self.assertEqual(self.check(source, write=True)[2], filled)
        self.assertTrue(self.check(filled)[0])

    def expect_kept(self, source):
        passed, printed, kept = self.check(source, write=True)
        self.assertTrue(passed, printed)
        self.assertEqual(kept, source)

    def test_a_paragraph_over_110_columns_is_broken_into_lines(self):
        self.assertIn("base/a.cpp:1: a paragraph is not filled", self.check(FULL + " abcd\n")[1])
        self.expect_filled(FULL + " abcd\n", FULL.removesuffix(" word") + "\n// word abcd\n")
        self.expect_kept(FULL + " ab\n")  # exactly 110 columns

    def test_a_last_line_of_one_word_is_filled(self):
        self.expect_filled("// one two\n// three\n", "// one two three\n")
        self.expect_filled(FULL + "\n// orphan\n", FULL.removesuffix(" word") + "\n// word orphan\n")
        self.expect_kept("// one\n// two three\n")

    def test_an_item_of_a_list_keeps_its_indent(self):
        self.expect_filled("// 1. one two\n//    three\n// 2. four five\n", "// 1. one two three\n// 2. four five\n")

    def test_an_indented_comment_keeps_its_column(self):
        self.expect_filled("    // one two\n    // three\n", "    // one two three\n")

    def test_pictures_marks_and_other_paragraphs_are_kept(self):
        self.expect_kept("// one two\n//\n// three\n")
        self.expect_kept("// one two\n//   three\n")
        self.expect_kept("// one two\n// NOLINT(why)\n")
        self.expect_kept("// one two\n    // three\n")

    def test_a_comment_with_stars_is_filled_like_one_with_slashes(self):
        self.expect_filled("/* " + WORDS + " abcd */\n", "/* " + WORDS.removesuffix(" word") + "\n * word abcd */\n")
        self.expect_filled("/* one two\n * three */\n", "/* one two three */\n")
        self.expect_filled("/* one\n *\n * two three\n * four\n */\n", "/* one\n *\n * two three four\n */\n")
        self.expect_kept("/* " + WORDS + " */\n")
        self.expect_kept("/* one two */\n/* three */\n")
        self.expect_kept("/* one\n * two three */\n")

    def test_a_long_comment_after_code_is_found_but_not_changed(self):
        source = "int a = 0;  " + FULL + "\n"
        passed, printed, kept = self.check(source, write=True)
        self.assertFalse(passed)
        self.assertIn("base/a.cpp:1: a comment over 110 columns", printed)
        self.assertEqual(kept, source)
        self.assertIn("base/a.cpp:1: a comment over 110", self.check("int a = 0;  /* " + WORDS + " */\n")[1])

    def test_a_long_string_with_slashes_is_not_a_comment(self):
        self.expect_kept('const char* a = "http://' + "x" * 110 + '";\n')

    def test_no_sources_do_not_pass(self):
        with tempfile.TemporaryDirectory() as directory, contextlib.redirect_stdout(io.StringIO()):
            self.assertFalse(CHECK.check(pathlib.Path(directory)))


if __name__ == "__main__":
    unittest.main()
