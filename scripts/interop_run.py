#!/usr/bin/env python3
"""Started by scripts/interop in private namespaces; see its --help."""

import argparse
import collections
import os
import shutil
import sys
import tempfile
import time

import interop_clients as clients
import interop_self_test
from interop_matrix import LEAST_S, run_matrix
from interop_outcomes import CANNOT, DEFECT, ENDS, WORKS
from interop_report import list_clients, page_tables, update_page
from processes import RunError, Stopped, raise_stopped_on_signals, say, set_up_namespaces
from recordings import ToolError

ROOT_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SERVER = os.path.join(ROOT_DIR, "build/release/v9_rtmp_server")
DEFAULT_S = 10


def selected(entries, names):
    known = {entry.name: entry for entry in entries}
    for name in names:
        if name not in known:
            raise RunError(f"no '{name}' among {', '.join(known)}: scripts/interop --list")
    return tuple(known[name] for name in names)


def choose(arguments):
    """Publishers, players and refusals to run."""
    if arguments.refusal and not arguments.publisher and not arguments.player:
        return (), (), selected(clients.REFUSALS, arguments.refusal)
    publishers = selected(clients.PUBLISHERS, arguments.publisher) or clients.PUBLISHERS
    players = selected(clients.PLAYERS, arguments.player) or clients.PLAYERS
    if arguments.publisher or arguments.player:
        return publishers, players, selected(clients.REFUSALS, arguments.refusal)
    return publishers, players, clients.REFUSALS


def parse_arguments():
    parser = argparse.ArgumentParser(description="See scripts/interop --help.")
    parser.add_argument("--publisher", action="append", default=[])
    parser.add_argument("--player", action="append", default=[])
    parser.add_argument("--refusal", action="append", default=[])
    parser.add_argument("--seconds", type=int, default=DEFAULT_S)
    parser.add_argument("--keep")
    parser.add_argument("--server", default=SERVER)
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--update-page", action="store_true")
    parser.add_argument("--self-test", action="store_true")
    parser.add_argument("--in-namespaces", action="store_true", help="given by scripts/interop")
    arguments = parser.parse_args()
    if arguments.seconds < LEAST_S:
        parser.error(f"--seconds must be at least {LEAST_S}, or no player could join late")
    if arguments.update_page and (arguments.publisher or arguments.player or arguments.refusal):
        parser.error("--update-page requires the whole matrix")
    return arguments


def keep(directory, target):
    shutil.copytree(directory, target, dirs_exist_ok=True, ignore=shutil.ignore_patterns("runtime"))
    say(f"Recordings and logs: {target}")


def run(arguments, directory):
    """True if nothing is wrong."""
    begin = time.monotonic()
    outcomes, refused, wrong = run_matrix(directory, os.path.abspath(arguments.server), *choose(arguments),
                                          arguments.seconds)
    if arguments.update_page and not wrong:
        update_page(page_tables(outcomes, refused))
    for problem in wrong:
        print(f"    WRONG: {problem}")
    verdicts = collections.Counter(outcome.verdict for outcome in outcomes)
    say(f"{verdicts[WORKS]} runs work, {verdicts[ENDS]} end where expected, "
        f"{verdicts[CANNOT]} cannot for a known reason, {verdicts[DEFECT]} defects; "
        f"{len(refused)} refused as expected; {len(wrong)} problems; {time.monotonic() - begin:.0f} s")
    return not wrong


def main():
    arguments = parse_arguments()
    if arguments.list:
        list_clients()
        return 0
    if not arguments.in_namespaces:
        raise RunError("start scripts/interop instead")
    set_up_namespaces(own_network=True)
    raise_stopped_on_signals()
    directory = tempfile.mkdtemp(prefix="v9_interop_")
    os.chmod(directory, 0o755)
    good = False
    try:
        if arguments.self_test:
            good = interop_self_test.run(directory, os.path.abspath(arguments.server))
        else:
            good = run(arguments, directory)
    finally:
        if arguments.keep or not good:
            keep(directory, arguments.keep or os.path.join(ROOT_DIR, "out/interop"))
        shutil.rmtree(directory, ignore_errors=True)
    return 0 if good else 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (RunError, ToolError) as error:
        sys.exit(f"interop: this failed: {error}")
    except Stopped as stopped:
        sys.exit(stopped.status)
