#!/usr/bin/env python3
"""Checks with include-what-you-use that the daemon's sources include the headers of what they use, and no others.

    tools/check_used_includes.py [FILE.cpp]...

Without files, it checks every source and header of the daemon and of the control library. v9_rtmp_ctl is left out,
because include-what-you-use asks for the internal headers of the libraries that v9_rtmp_ctl uses.
"""
import concurrent.futures
import os
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
FOLDERS = ["base", "amf", "rtmp", "core", "relay", "app", "control", "comm_socket"]
COMMAND = ["include-what-you-use", "-xc++", "-std=c++20", "-I.", "-Icomm_socket/include", "-Xiwyu", "--no_fwd_decls",
           "-Xiwyu", "--max_line_length=10000"]
# Private headers of the system, and the public header to include instead.
PUBLIC = {"<bits/types/struct_iovec.h>": "<sys/uio.h>"}
# Names that come from templates of the standard library, not from the source.
TEMPLATE_PART = re.compile(r"__\w+|_Rb_tree\w*|(allocator_traits|tuple_element|add_const)<|operator==|basic_string$|pair$")

HEADING = re.compile(r"(\S+) should (add|remove) these lines:$")
LINE = re.compile(r'(?:- )?#include ([<"][^>"]+[>"])(?:\s+// for (.*))?')


def names_something(reasons):
    return any(not TEMPLATE_PART.match(reason) for reason in reasons.split(", "))


def findings(output):
    """Returns one sentence for each line that is to be added or removed."""
    wrong = set()
    path = kind = None
    for line in output.splitlines():
        heading = HEADING.match(line)
        found = LINE.match(line)
        if heading:
            path, kind = heading[1].removeprefix("./"), heading[2]
        elif line == "" or line.startswith("The full include-list"):
            kind = None
        elif kind == "remove" and found:
            wrong.add((path, PUBLIC.get(found[1], found[1]), "remove"))
        elif kind == "add" and found and names_something(found[2] or ""):
            wrong.add((path, PUBLIC.get(found[1], found[1]), "add"))
    # If a header is added by its private name and removed by its public one, the include is correct.
    return [f"{path}: {'does not include' if kind == 'add' else 'does not need'} {header}"
            for path, header, kind in sorted(wrong)
            if not {(path, header, "add"), (path, header, "remove")} <= wrong]


def output_for(source):
    result = subprocess.run([*COMMAND, source], cwd=ROOT, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            check=False)
    # Its exit status is always 2. If it cannot read a file, it prints no include list for it.
    if "error:" in result.stdout or not re.search(r"^(The full include-list for |\()" + re.escape(source) + r"\b",
                                                  result.stdout, re.MULTILINE):
        raise RuntimeError(f"include-what-you-use cannot read {source}:\n{result.stdout}")
    return result.stdout


def stands_alone(path):
    """Whether a file is checked by itself: a source, or a header without a source of the same name."""
    return path.suffix == ".cpp" or path.suffix == ".h" and not path.with_suffix(".cpp").exists()


def main(arguments):
    sources = arguments or sorted(path.relative_to(ROOT).as_posix() for folder in FOLDERS
                                  for path in (ROOT / folder).rglob("*.*") if stands_alone(path))
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        wrong = findings("\n".join(pool.map(output_for, sources)))
    print("\n".join([*wrong, f"checked the includes of {len(sources)} sources, {len(wrong)} wrong"]))
    return 0 if sources and not wrong else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
