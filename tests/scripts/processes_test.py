#!/usr/bin/env python3
"""scripts/processes.py ends what it has started, in order, however the script ends."""
import contextlib
import io
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import textwrap
import unittest

SCRIPTS = pathlib.Path(__file__).resolve().parent.parent.parent / "scripts"
sys.dont_write_bytecode = True
sys.path.insert(0, str(SCRIPTS))
import processes as P  # noqa: E402

LIMIT_S = 20

# Programs that say "ready" once they listen to signals.
IGNORES_THE_FIRST_SIGNAL = """
    import signal, sys, time
    def once(number, _):
        print("first", flush=True)
        signal.signal(number, lambda *_: sys.exit(7))
    signal.signal(signal.SIGINT, once)
    print("ready", flush=True)
    while True: time.sleep(1)
"""
IGNORES_ALL_SIGNALS = """
    import signal, time
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    print("ready", flush=True)
    while True: time.sleep(1)
"""


def python(text):
    return [sys.executable, "-c", textwrap.dedent(text)]


class ProcessesOfScripts(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.processes = P.Processes(directory.name)
        self.addCleanup(self.end_all)

    def end_all(self):
        for process in self.processes.by_name.values():
            process.kill()
            process.wait()

    def start_ready(self, name, program, **options):
        self.processes.start(name, python(program), **options)
        self.assertTrue(P.wait_until(lambda: "ready\n" in self.log(name), LIMIT_S), name)

    def log(self, name):
        return P.text_of(self.processes.log(name))

    def end(self, name, number, limit_s):
        printed = io.StringIO()
        with contextlib.redirect_stdout(printed):
            status = self.processes.end(name, number, limit_s)
        return status, printed.getvalue()

    def test_a_process_has_a_log_a_home_and_a_status_of_its_own(self):
        self.processes.start("one", ["sh", "-c", "echo out; echo err >&2; echo $HOME; pwd; exit 3"])
        self.assertTrue(P.wait_until(lambda: not self.processes.runs("one"), LIMIT_S))
        self.assertEqual(self.processes.status("one"), 3)
        directory = self.processes.directory
        self.assertEqual(self.log("one"), f"out\nerr\n{directory}\n{os.path.realpath(directory)}\n")

    def test_a_process_that_continues_after_the_first_signal_gets_a_second(self):
        self.start_ready("player", IGNORES_THE_FIRST_SIGNAL)
        self.assertEqual(self.end("player", signal.SIGINT, LIMIT_S), (7, ""))
        self.assertEqual(self.log("player"), "ready\nfirst\n")

    def test_a_process_that_does_not_end_is_killed(self):
        self.start_ready("player", IGNORES_ALL_SIGNALS)
        self.assertEqual(self.end("player", signal.SIGINT, 0.5), (137, "==> player does not end: killing it\n"))

    def test_ending_a_process_that_has_already_ended_returns_its_status(self):
        self.processes.start("player", ["sh", "-c", "exit 4"])
        self.assertTrue(P.wait_until(lambda: not self.processes.runs("player"), LIMIT_S))
        self.assertEqual(self.end("player", signal.SIGINT, LIMIT_S), (4, ""))

    def test_the_last_one_started_ends_first(self):
        order = self.processes.path("order")
        program = f"""
            import signal, sys, time
            def end(*_):
                with open({order!r}, "a") as file: file.write(sys.argv[1])
                sys.exit(0)
            signal.signal(signal.SIGTERM, end)
            print("ready", flush=True)
            while True: time.sleep(1)
        """
        with self.processes:
            for name in ("1", "2", "3"):
                self.processes.start(name, [*python(program), name], end_signal=signal.SIGTERM)
                self.assertTrue(P.wait_until(lambda name=name: "ready" in self.log(name), LIMIT_S))
        self.assertEqual(P.text_of(order), "321")

    def test_processes_end_with_a_script_that_is_killed(self):
        script = f"""
            import sys, time
            sys.path.insert(0, {str(SCRIPTS)!r})
            import processes
            child = processes.Processes({self.processes.directory!r}).start("child", ["sleep", "1000"])
            print(child.pid, flush=True)
            time.sleep(1000)
        """
        with subprocess.Popen([sys.executable, "-B", "-c", textwrap.dedent(script)], stdout=subprocess.PIPE) as parent:
            child = int(parent.stdout.readline())
            comm = f"/proc/{child}/comm"
            self.assertTrue(P.wait_until(lambda: P.text_of(comm) == "sleep\n", LIMIT_S))
            parent.kill()
            parent.wait()
        self.assertTrue(P.wait_until(lambda: self.is_gone(child), LIMIT_S))

    @staticmethod
    def is_gone(pid):
        try:
            return P.text_of(f"/proc/{pid}/stat").rsplit(")", 1)[1].split()[0] == "Z"
        except FileNotFoundError:
            return True

    def test_a_signal_stops_the_script_once(self):
        script = f"""
            import os, signal, sys, time
            sys.path.insert(0, {str(SCRIPTS)!r})
            import processes
            processes.raise_stopped_on_signals()
            try:
                print("ready", flush=True)
                time.sleep(1000)
            except processes.Stopped as stopped:
                os.kill(os.getpid(), signal.SIGTERM)
                print("ended in order", flush=True)
                sys.exit(stopped.status)
        """
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with subprocess.Popen([sys.executable, "-B", "-c", textwrap.dedent(script)], stdout=subprocess.PIPE,
                                  text=True) as process:
                self.assertEqual(process.stdout.readline(), "ready\n")
                process.send_signal(number)
                self.assertEqual(process.communicate(timeout=LIMIT_S)[0], "ended in order\n")
                self.assertEqual(process.returncode, 128 + number)


if __name__ == "__main__":
    unittest.main()
