#!/usr/bin/env python3
"""tools/list_behaviours.py lists every test on the page that it writes."""
import contextlib
import fnmatch
import io
import pathlib
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.dont_write_bytecode = True
sys.path.insert(0, str(ROOT / "tools"))
import list_behaviours as LIST  # noqa: E402

HANDSHAKE = "TEST_F(handshake, fails_when_nobody_answers) {\n}\n\nTEST_F(handshake, counts_every_byte) {\n}\n"


class BehaviourList(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = pathlib.Path(directory.name)
        self.write("rtmp/handshake_test.cpp", HANDSHAKE)

    def write(self, name, text):
        path = self.root / "tests" / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")

    def run_tool(self):
        printed = io.StringIO()
        with contextlib.redirect_stdout(printed):
            status = LIST.main([str(self.root)])
        return status, printed.getvalue()

    def page(self):
        self.assertEqual(self.run_tool()[0], 0)
        return (self.root / LIST.PAGE).read_text(encoding="utf-8")

    def test_a_test_is_a_sentence_after_its_subject_and_file(self):
        page = self.page()
        self.assertIn("## Handshake\n", page)
        self.assertIn("**Handshake** ([rtmp/handshake_test.cpp](../tests/rtmp/handshake_test.cpp))\n\n"
                      "- fails when nobody answers\n- counts every byte\n", page)
        self.assertIn(" 2 behaviours.", page)

    def test_names_whose_words_run_together_are_taken_apart(self):
        self.write("tools/json_test.cpp", "TEST(ListJson, NumbersAreNumbersIn80Columns) {\n}\n")
        self.write("app/play_test.cpp", "TEST_F(PlayDeathTest, a_slot_outside_the_table_ends_the_process) {\n}\n")
        page = self.page()
        self.assertIn("**List JSON** (", page)
        self.assertIn("- numbers are numbers in 80 columns\n", page)
        self.assertIn("**Play** (", page)

    def test_one_subject_may_have_several_files(self):
        self.write("e2e/handshake_test.cpp", "TEST(handshake, works) {\n}\n")
        self.assertIn("**Handshake** ([e2e/handshake_test.cpp](../tests/e2e/handshake_test.cpp), "
                      "[rtmp/handshake_test.cpp](../tests/rtmp/handshake_test.cpp))\n", self.page())

    def test_tests_of_python_and_cmake_are_listed(self):
        self.write("docs/pages_test.py", "class Pages(unittest.TestCase):\n    def test_are_complete(self):\n        pass\n")
        self.write("docs/CMakeLists.txt", "add_test(NAME the_pages_are_complete\n  COMMAND true)\n")
        page = self.page()
        self.assertIn("**Pages** (", page)
        self.assertIn("- are complete\n", page)
        self.assertIn("- the pages are complete\n", page)

    def test_a_file_that_fits_nowhere_is_still_listed(self):
        self.write("novel/idea_test.cpp", "TEST(idea, is_new) {\n}\n")
        self.assertIn("## The server as a whole\n", self.page())

    def test_the_page_is_written_below_out_and_counted(self):
        self.assertEqual(self.run_tool(), (0, "out/behaviours.md: 2 behaviours\n"))
        self.assertTrue((self.root / "out/behaviours.md").exists())

    def test_a_later_run_replaces_the_page(self):
        self.page()
        self.write("rtmp/handshake_test.cpp", HANDSHAKE.replace("counts_every_byte", "loses_every_byte"))
        page = self.page()
        self.assertIn("- loses every byte\n", page)
        self.assertNotIn("- counts every byte\n", page)

    def test_without_tests_there_is_no_page(self):
        (self.root / "tests/rtmp/handshake_test.cpp").unlink()
        self.assertEqual(self.run_tool()[0], 1)
        self.assertFalse((self.root / "out/behaviours.md").exists())

    def test_every_pattern_of_the_groups_matches_a_test(self):
        folder = ROOT / LIST.TESTS
        names = [path.relative_to(folder).as_posix() for path in folder.rglob("*") if path.is_file()]
        for heading, _, patterns in LIST.GROUPS:
            for pattern in patterns:
                self.assertTrue(fnmatch.filter(names, pattern), f"{heading}: nothing matches {pattern}")


if __name__ == "__main__":
    unittest.main()
