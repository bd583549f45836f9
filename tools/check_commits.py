#!/usr/bin/env python3
"""Checks the subjects and bodies of the messages of all commits after the one that added this file.

    tools/check_commits.py [ROOT]

In a clone without history there is nothing to check, and the check passes. In a shallow clone, only the commits that
are present are checked.
"""
import pathlib
import subprocess
import sys

THIS_FILE = "tools/check_commits.py"
SUBJECT_COLUMNS = 72
TRIVIAL_LINES = 10  # A commit that changes more lines needs a body.


class NoHistory(Exception):
    """There are no commits to check. The text says why."""


def git(root, *arguments):
    try:
        result = subprocess.run(["git", "-C", root, *arguments], capture_output=True, encoding="utf-8",
                                errors="replace", check=False)
    except FileNotFoundError as error:
        raise NoHistory("git is not installed") from error
    if result.returncode != 0:
        raise NoHistory(result.stderr.strip())
    return result.stdout


def commits_to_check(root):
    """Returns the commits after the first that has this file, oldest first."""
    if pathlib.Path(git(root, "rev-parse", "--show-toplevel").strip()).resolve() != root.resolve():
        raise NoHistory(f"{root} is not the root of a repository")
    added = git(root, "log", "--diff-filter=A", "--format=%H", "--", THIS_FILE).split()
    if not added:
        raise NoHistory(f"{THIS_FILE} is not committed")
    return git(root, "rev-list", "--reverse", f"{added[-1]}..HEAD").split()


def changed_lines(root, commit):
    counts = [line.split("\t")[:2] for line in git(root, "show", "--numstat", "--format=", commit).splitlines()]
    return sum(TRIVIAL_LINES + 1 if "-" in pair else int(pair[0]) + int(pair[1]) for pair in counts)


def problems_of(root, commit):
    parents, subject, body = git(root, "show", "--no-patch", "--format=%P%n%s%n%b", commit).split("\n", 2)
    problems = []
    if len(subject) > SUBJECT_COLUMNS:
        problems.append(f"the subject has {len(subject)} characters; at most {SUBJECT_COLUMNS} are allowed")
    if subject.startswith(("Merge branch", "fixup!", "squash!", "WIP")):
        problems.append("the subject does not say what the system now does")
    is_merge = len(parents.split()) > 1
    if not body.strip() and not is_merge and changed_lines(root, commit) > TRIVIAL_LINES:
        problems.append(f"the commit changes more than {TRIVIAL_LINES} lines, but has no body that gives the reason")
    return [f"{commit[:10]} {subject}\n    {problem}" for problem in problems]


def main(arguments):
    root = pathlib.Path(arguments[0] if arguments else pathlib.Path(__file__).resolve().parent.parent)
    try:
        commits = commits_to_check(root)
        problems = [problem for commit in commits for problem in problems_of(root, commit)]
        shallow = git(root, "rev-parse", "--is-shallow-repository").strip() == "true"
    except NoHistory as reason:
        print(f"commit messages are not checked: {reason}")
        return 0
    print("".join(problem + "\n" for problem in problems), end="")
    if problems:
        print("What to do: git commit --amend for the last commit, git rebase --interactive for an earlier one.")
        return 1
    print(f"commit messages checked: {len(commits)}" + (", in a shallow clone" if shallow else ""))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
