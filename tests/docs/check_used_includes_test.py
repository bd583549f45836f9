#!/usr/bin/env python3
"""tools/check_used_includes.py finds missing and needless include lines, and refuses sources that cannot be read."""
import pathlib
import shutil
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.dont_write_bytecode = True
sys.path.insert(0, str(ROOT / "tools"))
import check_used_includes as CHECK  # noqa: E402


class UsedIncludes(unittest.TestCase):
    def findings(self, text):
        with tempfile.TemporaryDirectory() as directory:
            source = pathlib.Path(directory) / "source.cpp"
            source.write_text(text, encoding="utf-8")
            return [line.removeprefix(f"{source}: ") for line in CHECK.findings(CHECK.output_for(str(source)))]

    def test_a_source_that_includes_what_it_names_passes(self):
        self.assertEqual(self.findings("#include <string>\nstd::string name;\n"), [])

    def test_a_missing_header_is_found(self):
        self.assertEqual(self.findings("#include <stdexcept>\nstd::runtime_error failure(std::string{});\n"),
                         ["does not include <string>"])

    def test_a_needless_header_is_found(self):
        self.assertEqual(self.findings("#include <string>\n#include <vector>\nstd::string name;\n"),
                         ["does not need <vector>"])

    def test_a_private_header_stands_for_its_public_one(self):
        self.assertEqual(self.findings("#include <sys/uio.h>\niovec piece;\n"), [])

    def test_parts_of_a_template_need_no_header(self):
        self.assertEqual(self.findings("#include <vector>\nint first(std::vector<int>& v) { return v[0]; }\n"), [])

    def test_a_source_that_cannot_be_read_is_an_error(self):
        with self.assertRaises(RuntimeError):
            self.findings("#include <no_such_header>\n")


if __name__ == "__main__":
    unittest.main()
