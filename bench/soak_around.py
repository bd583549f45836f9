#!/usr/bin/python3
"""Runs the programs that accompany a server for years beside the load of a soak: watchdog, serve, a Prometheus that
scrapes serve and a browser on its page. soak_load starts it and ends it with SIGTERM.

usage: soak_around.py DIR [--short]

V9_CTL_PATH is the tool. Once a second DIR/around.csv gets a line with the resources of watchdog and serve. Meanwhile
clients that the watchdog must drop join one after another: one without a stream, and a player that stops reading. At
the end DIR/around.json says which clients were dropped and what Prometheus and the browser saw. --short is for a run of
seconds: the limits are shorter, and no player is tried, since its sockets take the media of half a minute first.
"""
import json
import os
import pathlib
import signal
import socket
import subprocess
import sys
import threading
import time

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "tools" / "serve"))
from browser import Browser  # noqa: E402
from programs import SOCKET, Process, Prometheus, Serve, play, program, wait_for  # noqa: E402

STREAM = "load_0"
READING_TIME_S = 3
BETWEEN_CLIENTS_S = 20
# Sockets fill in half a minute, and the client is dropped 30 s later.
DROP_WAIT_S = 150
PAGE_SIZE = """gc(); return [document.getElementsByTagName('*').length, performance.memory.usedJSHeapSize]"""
stopped = threading.Event()


class Watchdog(Process):
    def __init__(self, directory, *options):
        super().__init__(program("v9_rtmp_ctl"), "--json", "watchdog", "--state", str(directory), *options)

    def drops(self):
        """Returns what it has dropped, and its other lines."""
        lines = self.output().splitlines()
        events = [json.loads(line) for line in lines if line.startswith("{")]
        return events, [line for line in lines if not line.startswith("{")]


def address_of(process):
    """Returns the local address of a program's only connection; None while it has none."""
    table = subprocess.run(["ss", "-Htnp", "state", "established"], capture_output=True, text=True, check=True).stdout
    return next((line.split()[2] for line in table.splitlines() if f"pid={process.popen.pid}," in line), None)


class Offenders(threading.Thread):
    """Clients that must be dropped. tried and dropped hold their addresses."""

    def __init__(self, watchdog, has_players):
        super().__init__()
        self.watchdog = watchdog
        self.ways = [self.try_without_stream] + ([self.try_player] if has_players else [])
        self.tried, self.dropped, self.problem = [], [], None

    def run(self):
        try:
            turn = 0
            while not stopped.is_set():
                self.ways[turn % len(self.ways)]()
                turn += 1
                stopped.wait(BETWEEN_CLIENTS_S)
        except Exception as error:  # An exception in a thread does not end the program.
            self.problem = repr(error)

    def wait_for_drop(self, address):
        self.tried.append(address)
        deadline = time.monotonic() + DROP_WAIT_S
        while time.monotonic() < deadline:
            if any(event["address"] == address and event["action"] == "dropped" for event in self.watchdog.drops()[0]):
                self.dropped.append(address)
                return
            if stopped.wait(0.5):
                self.tried.pop()  # The run ended before the limit was reached.
                return

    def try_without_stream(self):
        with socket.create_connection(("127.0.0.1", 1935)) as client:
            host, port = client.getsockname()
            self.wait_for_drop(f"{host}:{port}")

    def try_player(self):
        player = play(STREAM)
        try:
            address = wait_for("the player's connection", lambda: address_of(player))
            if not stopped.wait(READING_TIME_S):
                player.popen.send_signal(signal.SIGSTOP)
                self.wait_for_drop(address)
        finally:
            player.stop(signal.SIGKILL)


def sample(file, begin, programs, before):
    """Adds a line with the values of all programs; before holds their CPU times at the last call."""
    values = [f"{time.monotonic() - begin:.1f}"]
    for process in programs:
        now, cpu = time.monotonic(), process.cpu_s()
        then, cpu_then = before.get(process, (begin, 0))
        before[process] = (now, cpu)
        values += [str(process.status("VmRSS")), str(process.status("Threads")), str(process.descriptors()),
                   f"{100 * (cpu - cpu_then) / max(now - then, 0.001):.2f}"]
    file.write(",".join(values) + "\n")
    file.flush()


def look_around(directory, is_short):
    begin = time.monotonic()
    # In the /run of the load's own mount namespace, which ends with it.
    state = pathlib.Path("/run/around")
    state.mkdir()
    started = []

    def start(kind, *arguments):
        started.append(kind(*arguments))
        return started[-1]

    try:
        watchdog = start(Watchdog, state, *(["--unnamed", "2"] if is_short else []))
        serve = start(Serve, "--watchdog-state", str(state))
        prometheus = start(Prometheus, state, serve)
        browser = Browser()
        try:
            browser.open(serve.url)
            wait_for("the page", lambda: STREAM in browser.run("return document.body.innerText"))
            offenders = Offenders(watchdog, not is_short)
            offenders.start()
            before, page = {}, [browser.run(PAGE_SIZE)]
            with open(directory / "around.csv", "w", encoding="ascii") as file:
                columns = ("rss_kib", "threads", "descriptors", "cpu_percent")
                file.write(",".join(["seconds"] + [f"{who}_{column}" for who in ("watchdog", "serve") for column in columns])
                           + "\n")
                ticks = 0
                while not stopped.wait(1):
                    sample(file, begin, (watchdog, serve), before)
                    ticks += 1
                    if ticks % 60 == 0:
                        page.append(browser.run(PAGE_SIZE))
            page.append(browser.run(PAGE_SIZE))
            offenders.join()
            browser.picture(str(directory / "page.png"))
            events, said = watchdog.drops()
            span = f"[{int(time.monotonic() - begin) + 1}s]"
            result = {
                "offenders": offenders.tried, "offenders_dropped": offenders.dropped, "problem": offenders.problem,
                "events": events, "watchdog_said": said,
                "scrapes": sum(prometheus.query(f"count_over_time(up{span})").values()),
                "scrapes_failed": sum(prometheus.query(f"count_over_time(up{span}) - sum_over_time(up{span})").values()),
                "polls_failed": sum(prometheus.query(f"count_over_time(v9_rtmp_up{span}) - sum_over_time(v9_rtmp_up{span})")
                                    .values()),
                "page": [{"elements": elements, "heap_kib": heap // 1024} for elements, heap in page],
                "complaints": browser.complaints(),
            }
        finally:
            stopped.set()
            browser.quit()
        (directory / "around.json").write_text(json.dumps(result, indent=2), encoding="utf-8")
    finally:
        for process in reversed(started):
            process.stop()


def main(arguments):
    for number in (signal.SIGTERM, signal.SIGINT):
        signal.signal(number, lambda *_: stopped.set())
    tool = os.environ["V9_CTL_PATH"]
    os.environ["V9_PROGRAMS"] = str(pathlib.Path(tool).parent)
    wait_for("the control socket", lambda: os.path.exists(SOCKET))
    look_around(pathlib.Path(arguments[0]), "--short" in arguments[1:])


if __name__ == "__main__":
    main(sys.argv[1:])
