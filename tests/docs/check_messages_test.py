#!/usr/bin/env python3
"""tools/check_messages.py finds every kind of difference: run on copies of page and sources with one change each."""
import io
import contextlib
import pathlib
import shutil
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.dont_write_bytecode = True
sys.path.insert(0, str(ROOT / "tools"))
import check_messages as CHECK  # noqa: E402


class CheckMessages(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = pathlib.Path(directory.name)
        for folder in CHECK.FOLDERS:
            shutil.copytree(ROOT / folder, self.root / folder)
        (self.root / "docs").mkdir()
        shutil.copy(ROOT / CHECK.PAGE, self.root / CHECK.PAGE)

    def change(self, name, old, new):
        path = self.root / name
        text = path.read_text(encoding="utf-8")
        self.assertIn(old, text)
        path.write_text(text.replace(old, new, 1), encoding="utf-8")

    def check(self):
        printed = io.StringIO()
        with contextlib.redirect_stdout(printed):
            agree = CHECK.check(self.root)
        return agree, printed.getvalue()

    def expect_difference(self, *expected):
        agree, printed = self.check()
        self.assertFalse(agree, printed)
        for text in expected:
            self.assertIn(text, printed)

    def test_page_and_sources_agree_as_they_are(self):
        self.assertEqual(self.check()[0], True)

    def test_a_text_that_only_the_sources_have_is_found(self):
        self.change("core/listener.cpp", "}  // namespace", 'void more() {\n    diag("One more %u\\n", 1U);\n}\n}  // namespace')
        self.expect_difference("core/listener.cpp:", "text not on the page: 'One more %u'")

    def test_a_text_that_only_the_page_has_is_found(self):
        self.change(CHECK.PAGE, "## Handshake", "| `Never printed` | Never. | Nothing |\n\n## Handshake")
        self.expect_difference("docs/messages.md:", "text not in the sources: 'Never printed'")

    def test_a_byte_of_difference_is_found_on_both_sides(self):
        self.change("relay/time_reset.cpp", "Notifing", "Notifying")
        self.expect_difference("not on the page: 'Notifying subscribers of time reset'",
                               "not in the sources: 'Notifing subscribers of time reset'")

    def test_a_lost_newline_is_found(self):
        self.change("app/dispatch.cpp", '"AMF0 error notify\\n"', '"AMF0 error notify"')
        self.expect_difference("'AMF0 error notify' (no newline)")

    def test_a_refusal_without_a_newline_is_found(self):
        self.change("rtmp/handshake.cpp", '"C0 fail\\n"', '"C0 fail"')
        self.expect_difference("'C0 fail' (no newline)")

    def test_a_text_on_the_other_stream_is_found(self):
        self.change("app/dispatch.cpp", 'diag("AMF0 error notify', 'diag_stdout("AMF0 error notify')
        self.expect_difference("'AMF0 error notify' (standard output)")

    def test_a_text_that_is_chosen_before_it_is_printed_is_found(self):
        self.change("core/connection_close.cpp", "Thread 1 died", "Thread one died")
        self.expect_difference("not on the page: 'Thread one died'")

    def test_a_text_in_two_pieces_is_read_as_one(self):
        self.change("app/dispatch.cpp", '"AMF0 error notify\\n"', '"AMF0 error "\n                     "notify\\n"')
        self.assertEqual(self.check()[0], True)

    def test_a_text_in_a_comment_is_ignored(self):
        self.change("app/dispatch.cpp", "namespace {", 'namespace {\n// diag("Not printed\\n");')
        self.assertEqual(self.check()[0], True)

    def test_an_assertion_that_only_the_sources_have_is_found(self):
        self.change("amf/amf_read.cpp", "CHECK(s <= sf);", "CHECK(s < sf);")
        self.expect_difference("assertion not on the page: 's < sf'", "assertion not in the sources: 's <= sf'")

    def test_another_text_for_a_failed_unlock_is_found(self):
        self.change("core/connection.h", '"p->connection_io_unlock()"', '"q->connection_io_unlock()"')
        self.expect_difference("assertion not on the page: 'q->connection_io_unlock()'")

    def test_a_new_word_in_a_dump_is_found(self):
        self.change("amf/amf_dump.cpp", '"Object: {"', '"Struct: {"')
        self.expect_difference("word of a dump not on the page: 'Struct: {'")

    def test_a_print_outside_base_diag_is_found(self):
        self.change("app/dispatch.cpp", "namespace {", 'namespace {\nvoid f() {\n    std::printf("x");\n}')
        self.expect_difference("printf prints without base/diag")

    def test_a_text_that_is_on_the_page_twice_is_found(self):
        self.change(CHECK.PAGE, "## Handshake", "| `RTMP begin` | Again. | Nothing |\n\n## Handshake")
        self.expect_difference("listed twice: RTMP begin")

    def test_an_empty_page_does_not_agree(self):
        (self.root / CHECK.PAGE).write_text("", encoding="utf-8")
        self.expect_difference("not on the page: 'RTMP begin'")

    def test_no_sources_do_not_agree(self):
        for folder in CHECK.FOLDERS:
            shutil.rmtree(self.root / folder)
        self.expect_difference("not in the sources: 'RTMP begin'")


if __name__ == "__main__":
    unittest.main()
