#!/usr/bin/env python3
"""tools/run_examples.py finds the commands of a page, and lets no failing or hidden one pass."""
import contextlib
import io
import os
import pathlib
import sys
import types
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.dont_write_bytecode = True
sys.path.insert(0, str(ROOT / "tools"))
import run_examples as EXAMPLES  # noqa: E402

MACHINE = types.SimpleNamespace(checkout="/", environment=dict(os.environ), succeeds=lambda command: command == "true")


def block(text, *marks, language="sh"):
    return "".join(f"<!-- {mark} -->\n" for mark in marks) + f"```{language}\n{text}\n```\n"


class the_commands_of_a_page(unittest.TestCase):
    def errors(self, text):
        return EXAMPLES.parse("page", text)[1]

    def judge(self, text, *marks):
        example = EXAMPLES.parse("page", block(text, *marks))[0][0]
        return EXAMPLES.run_in_terminal(example, ["bash", "-euo", "pipefail", "-c", example.text], MACHINE)

    def test_are_the_lines_of_its_blocks(self):
        text = "text\n\n" + block("# why\na \\\n  b\n\nc", "with: server") + block("d", language="text")
        examples, errors = EXAMPLES.parse("page", text)
        self.assertEqual([], errors)
        self.assertEqual([["a    b", "c"]], [example.commands() for example in examples])
        self.assertEqual({"with": "server"}, examples[0].marks)

    def test_cannot_be_hidden(self):
        self.assertEqual([], self.errors("text\n" + block("a", "with: stream")))
        for hidden in ("    ls\n", block("$ ls", language="text"), block("ls", language=""), "```sh\nls\n",
                       block("ls", language="bash"), "- a\n\n  ```sh\n  ls\n  ```\n", "~~~sh\nls\n~~~\n",
                       block("ls", "with: beer"), "<!-- not run: x -->\n\n" + block("ls")):
            self.assertTrue(self.errors(hidden), hidden)

    def test_are_run_except_for_at_most_15_in_100(self):
        for left_out, good in ((3, True), (4, False)):
            text = block("\n".join(["a"] * left_out), "not run: why") + block("\n".join(["b"] * (20 - left_out)))
            said = io.StringIO()
            with contextlib.redirect_stdout(said):
                self.assertEqual(good, EXAMPLES.report_not_run(EXAMPLES.parse("page", text)[0]))
            self.assertIn("why", said.getvalue())

    def test_fail_by_their_status(self):
        self.assertIsNone(self.judge("true"))
        self.assertIn("status 1", self.judge("false\ntrue"))
        self.assertIn("status 1", self.judge("false | cat"))
        self.assertIsNone(self.judge("exit 1", "status: 0 1"))
        self.assertIn("status 2", self.judge("exit 2", "status: 0 1"))

    def test_that_run_endlessly_must_have_done_their_work(self):
        self.assertIsNone(self.judge("sleep 60", "until: true"))
        self.assertIsNone(self.judge("echo hello; sleep 60", "says: hello"))
        self.assertIn("ended too early; this did not succeed: false", self.judge("echo hello", "until: false"))
        self.assertIn("ended too early; it did not print: hello", self.judge("echo good day", "says: hello"))
        self.assertIn("status 3", self.judge("exit 3", "says: hello"))


if __name__ == "__main__":
    unittest.main()
