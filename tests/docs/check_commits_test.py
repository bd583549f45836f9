#!/usr/bin/env python3
"""tools/check_commits.py refuses long subjects and missing bodies, and passes where there is no history."""
import contextlib
import io
import pathlib
import subprocess
import sys
import tempfile
import unittest
from unittest import mock

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.dont_write_bytecode = True
sys.path.insert(0, str(ROOT / "tools"))
import check_commits as CHECK  # noqa: E402

SOMEBODY = {"GIT_CONFIG_GLOBAL": "/dev/null", "GIT_CONFIG_SYSTEM": "/dev/null", "GIT_CEILING_DIRECTORIES": "/",
            "GIT_AUTHOR_NAME": "n", "GIT_AUTHOR_EMAIL": "e", "GIT_COMMITTER_NAME": "n", "GIT_COMMITTER_EMAIL": "e"}


class CommitMessages(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        environment = mock.patch.dict("os.environ", SOMEBODY)
        environment.start()
        self.addCleanup(environment.stop)
        self.root = pathlib.Path(directory.name) / "checkout"
        self.root.mkdir()
        self.git("init", "-q", "-b", "main")
        self.commit("x" * 80, name="before")
        self.commit("tools: commit messages are checked", name=CHECK.THIS_FILE)

    def git(self, *arguments):
        subprocess.run(["git", "-C", self.root, *arguments], check=True, capture_output=True)

    def commit(self, message, lines=11, name="file"):
        path = self.root / name
        path.parent.mkdir(exist_ok=True)
        with path.open("a", encoding="utf-8") as file:
            file.write("line\n" * lines)
        self.git("add", ".")
        self.git("commit", "-q", "-m", message)

    def check(self, root=None):
        printed = io.StringIO()
        with contextlib.redirect_stdout(printed):
            status = CHECK.main([str(root or self.root)])
        return status, printed.getvalue()

    def assert_refused(self, *texts):
        status, printed = self.check()
        self.assertEqual(status, 1)
        for text in (*texts, "git commit --amend"):
            self.assertIn(text, printed)

    def test_commits_up_to_the_one_that_adds_the_check_are_left_alone(self):
        self.assertEqual(self.check(), (0, "commit messages checked: 0\n"))

    def test_a_subject_of_72_characters_passes(self):
        self.commit("ä" * 72 + "\n\nThe reason.")
        self.assertEqual(self.check(), (0, "commit messages checked: 1\n"))

    def test_a_subject_of_73_characters_is_refused(self):
        self.commit("a" * 73 + "\n\nThe reason.")
        self.commit("a later one\n\nThe reason.")
        self.assert_refused("a" * 73, "the subject has 73 characters; at most 72 are allowed")

    def test_a_change_of_10_lines_needs_no_body(self):
        self.commit("a small change", lines=10)
        self.assertEqual(self.check()[0], 0)

    def test_a_change_of_11_lines_without_a_body_is_refused(self):
        self.commit("a change", lines=11)
        self.assert_refused("a change\n", "has no body that gives the reason")

    def test_a_binary_file_without_a_body_is_refused(self):
        (self.root / "picture").write_bytes(b"\0\1\2")
        self.commit("a picture", lines=0)
        self.assert_refused("has no body that gives the reason")

    def test_a_merge_needs_no_body_but_what_it_merges_does(self):
        self.git("checkout", "-q", "-b", "branch")
        self.commit("a change\n\nThe reason.", name="other")
        self.git("checkout", "-q", "main")
        self.commit("another change\n\nThe reason.")
        self.git("merge", "-q", "--no-ff", "-m", "the branch (merge)", "branch")
        self.assertEqual(self.check()[0], 0)
        self.git("checkout", "-q", "branch")
        self.commit("a change without a reason", name="other")
        self.git("checkout", "-q", "main")
        self.git("merge", "-q", "--no-ff", "-m", "the branch again (merge)", "branch")
        self.assert_refused("a change without a reason")

    def test_a_shallow_clone_is_checked_as_far_as_it_goes(self):
        self.commit("a" * 73 + "\n\nThe reason.")
        self.commit("a change\n\nThe reason.")
        self.commit("a change\n\nThe reason.")
        clone = self.root.parent / "clone"
        self.git("clone", "-q", "--depth", "2", f"file://{self.root}", clone)
        self.assertEqual(self.check(clone), (0, "commit messages checked: 1, in a shallow clone\n"))

    def test_a_checkout_without_history_passes_and_says_so(self):
        copy = self.root.parent / "copy"
        copy.mkdir()
        inside = self.root / "tools"
        for root in (copy, inside):
            status, printed = self.check(root)
            self.assertEqual(status, 0)
            self.assertIn("commit messages are not checked: ", printed)

    def test_a_machine_without_git_passes_and_says_so(self):
        with mock.patch.dict("os.environ", {"PATH": "/nowhere"}):
            self.assertEqual(self.check(), (0, "commit messages are not checked: git is not installed\n"))


if __name__ == "__main__":
    unittest.main()
