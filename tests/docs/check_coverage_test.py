#!/usr/bin/env python3
"""tools/check_coverage.py lets nothing below its limits pass: run on summaries made for the purpose."""
import contextlib
import io
import json
import pathlib
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.dont_write_bytecode = True
sys.path.insert(0, str(ROOT / "tools"))
import check_coverage as CHECK  # noqa: E402


def file(name, line_covered=1000, branch_covered=100):
    """Returns the summary of a file of 1000 lines and 100 branches."""
    return {"filename": name, "line_covered": line_covered, "line_total": 1000,
            "branch_covered": branch_covered, "branch_total": 100}


class CheckCoverage(unittest.TestCase):
    def check(self, files, reasons=""):
        with tempfile.TemporaryDirectory() as directory:
            summary = pathlib.Path(directory, "summary.json")
            summary.write_text(json.dumps({"files": files}), encoding="utf-8")
            page = pathlib.Path(directory, "reasons.md")
            page.write_text(reasons, encoding="utf-8")
            errors = io.StringIO()
            with contextlib.redirect_stdout(io.StringIO()), contextlib.redirect_stderr(errors):
                status = CHECK.main(summary, page)
        return status, errors.getvalue()

    def test_full_coverage_passes(self):
        self.assertEqual(self.check([file("base/a.cpp"), file("amf/b.cpp")]), (0, ""))

    def test_an_empty_summary_fails(self):
        self.assertEqual(self.check([])[0], 1)

    def test_line_coverage_has_a_minimum_over_all_files(self):
        files = [file("base/a.cpp", 969), file("amf/b.cpp", 970)]
        status, errors = self.check(files, "| `base/a.cpp` | 31 | x |\n| `amf/b.cpp` | 30 | x |")
        self.assertEqual(status, 1)
        self.assertIn("96.95 % of all lines are run", errors)
        files[0]["line_covered"] = 970
        self.assertEqual(self.check(files, "| `base/a.cpp` | 30 | x |\n| `amf/b.cpp` | 30 | x |"), (0, ""))

    def test_branch_coverage_has_a_minimum_over_all_files(self):
        self.assertEqual(self.check([file("base/a.cpp", branch_covered=90)]), (0, ""))
        status, errors = self.check([file("base/a.cpp", branch_covered=89)])
        self.assertEqual(status, 1)
        self.assertIn("89.00 % of all branches are taken", errors)

    def test_line_coverage_has_a_minimum_for_each_folder(self):
        files = [file("base/a.cpp", 949), file("amf/b.cpp"), file("amf/c.cpp"), file("amf/d.cpp")]
        status, errors = self.check(files, "| `base/a.cpp` | 51 | x |")
        self.assertEqual(status, 1)
        self.assertEqual(errors, "coverage: 94.90 % of the lines in base/ are run; at least 95.0 % must be\n")

    def test_lines_that_no_test_runs_need_a_reason(self):
        status, errors = self.check([file("base/a.cpp", 998)], "| `base/b.cpp` | 2 | x |")
        self.assertEqual(status, 1)
        self.assertIn("base/a.cpp has 2 lines that no test runs, and reasons are given for 0", errors)
        self.assertIn("reasons are given for base/b.cpp, which is not in the summary", errors)
        self.assertEqual(self.check([file("base/a.cpp", 998)], "| `base/a.cpp` | 2 | why |"), (0, ""))
        self.assertEqual(self.check([file("base/a.cpp", 998)], "| `base/a.cpp` | 1 | why |")[0], 1)


if __name__ == "__main__":
    unittest.main()
