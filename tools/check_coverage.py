#!/usr/bin/env python3
"""Compares the coverage of the tests with the required coverage.

usage: check_coverage.py SUMMARY.json REASONS.md

SUMMARY.json is gcovr's --json-summary of the daemon's folders. Prints a table with one line for each folder. Fails if
the lines or branches of all folders, or the lines of one folder, are below their limit, or if a file has more lines
that no test runs than REASONS.md gives reasons for. REASONS.md has a table whose rows begin "| `file` | lines |".
"""
import collections
import json
import re
import sys

LINES_OF_ALL = 97.0
BRANCHES_OF_ALL = 90.0
LINES_OF_A_FOLDER = 95.0


def percent(covered, total):
    return 100.0 * covered / total if total else 100.0


def count_folders(files):
    folders = collections.defaultdict(collections.Counter)
    for file in files:
        folder = folders[file["filename"].split("/")[0]]
        for key in ("line_covered", "line_total", "branch_covered", "branch_total"):
            folder[key] += file[key]
    return folders


def shares(counts):
    return (percent(counts["line_covered"], counts["line_total"]),
            percent(counts["branch_covered"], counts["branch_total"]))


def table_row(name, counts):
    lines, branches = shares(counts)
    return (f"{name:<12} {counts['line_total']:>6} {lines:>7.2f} %"
            f" {counts['branch_total']:>9} {branches:>7.2f} %")


def find_failures(folders, total, files, reasons):
    lines, branches = shares(total)
    if lines < LINES_OF_ALL:
        yield f"{lines:.2f} % of all lines are run; at least {LINES_OF_ALL} % must be"
    if branches < BRANCHES_OF_ALL:
        yield f"{branches:.2f} % of all branches are taken; at least {BRANCHES_OF_ALL} % must be"
    for name, counts in sorted(folders.items()):
        if shares(counts)[0] < LINES_OF_A_FOLDER:
            yield (f"{shares(counts)[0]:.2f} % of the lines in {name}/ are run;"
                   f" at least {LINES_OF_A_FOLDER} % must be")
    explained = {name: int(count) for name, count in re.findall(r"^\| `([\w/]+\.\w+)` \| (\d+) \|", reasons, re.M)}
    for file in files:
        not_run = file["line_total"] - file["line_covered"]
        if not_run > explained.get(file["filename"], 0):
            yield (f"{file['filename']} has {not_run} lines that no test runs, and reasons are given for"
                   f" {explained.get(file['filename'], 0)}")
    for name in sorted(explained.keys() - {file["filename"] for file in files}):
        yield f"reasons are given for {name}, which is not in the summary"


def main(summary_path, reasons_path):
    with open(summary_path, encoding="utf-8") as stream:
        files = json.load(stream)["files"]
    with open(reasons_path, encoding="utf-8") as stream:
        reasons = stream.read()
    if not files:
        print("coverage: the summary names no file", file=sys.stderr)
        return 1
    folders = count_folders(files)
    total = sum(folders.values(), collections.Counter())
    print(f"{'folder':<12} {'lines':>6} {'run':>9} {'branches':>9} {'taken':>9}")
    for name, counts in sorted(folders.items()):
        print(table_row(name, counts))
    print(table_row("all", total))
    failures = list(find_failures(folders, total, files, reasons))
    for failure in failures:
        print(f"coverage: {failure}", file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1], sys.argv[2]))
