#!/usr/bin/env python3
"""Measures what a player that stops reading costs the others while the watchdog finds and drops it.

    bench/stalled_player.py [--programs DIRECTORY] [--rounds N]

Each round relays a stream of 4 Mbit/s to 119 players for 50 s, once alone and once with one more player that reads
nothing, with a watchdog of default limits beside both. Lateness is that of 99 % of the frames in a round; the median of
the rounds counts. Memory is the server's resident memory, from the kernel. Exits with 0 if the watchdog drops that
player and no other, if lateness with it is at most 10 % above that without it, and if 15 s after the drop the server
occupies at most 2 MiB more than without it. A round takes 2 minutes, in namespaces of its own.
"""
import argparse
import json
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).absolute().parent.parent
sys.dont_write_bytecode = True
sys.path.insert(0, str(ROOT / "scripts"))
import processes  # noqa: E402

INSIDE = "V9_STALLED_PLAYER_INSIDE"
SECONDS = 50
LOAD_LIMIT_S = 180
AFTER_DROP_S = 15
MOST_LATENESS = 1.10
MOST_MEMORY_KIB = 2048
LOAD = ["--players", "119", "--kbit", "4000", "--seconds", str(SECONDS)]


def resident_kib(pid):
    lines = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="utf-8").splitlines()
    return next(int(line.split()[1]) for line in lines if line.startswith("VmRSS:"))


class Memory(threading.Thread):
    """Samples the server's resident memory twice a second, as (time since the epoch, KiB)."""

    def __init__(self, pid):
        super().__init__(daemon=True)
        self.pid, self.samples, self.ended = pid, [], threading.Event()

    def run(self):
        while not self.ended.wait(0.5):
            self.samples.append((time.time(), resident_kib(self.pid)))

    def most_until(self, end):
        return max(kib for at, kib in self.samples if at <= end)

    def first_from(self, begin):
        return next(kib for at, kib in self.samples if at >= begin)


def measure(programs, stuck):
    """Returns the lateness in ms, the watchdog's drops and the memory."""
    with tempfile.TemporaryDirectory(prefix="v9_") as directory, processes.Processes(directory) as running:
        server = processes.Server(running, programs / "v9_rtmp_server")
        running.start("watchdog", [programs / "v9_rtmp_ctl", "--json", "watchdog", "--state", directory])
        memory = Memory(running.by_name["server"].pid)
        memory.start()
        report = pathlib.Path(directory) / "report.json"
        running.start("load", [programs / "relay_load", *LOAD, "--stuck", str(stuck), "--server", "127.0.0.1",
                               "--pid", str(memory.pid), "--json", report])
        processes.wait_until(lambda: not running.runs("load"), LOAD_LIMIT_S)
        if running.status("load") is None or not report.exists():
            raise processes.RunError("the load has not ended with a report", running.log("load"))
        server.require()
        memory.ended.set()
        memory.join()
        drops = [json.loads(line) for line in processes.text_of(running.log("watchdog")).splitlines() if line[:1] == "{"]
        return json.loads(report.read_text(encoding="utf-8"))["lateness"]["p99_ms"], drops, memory


def run(programs, rounds):
    lateness = {0: [], 1: []}
    wrong = []
    for number in range(1, rounds + 1):
        alone_ms, drops, alone = measure(programs, 0)
        lateness[0].append(alone_ms)
        print(f"round {number}, without it: 99 % of the frames within {alone_ms:.1f} ms", flush=True)
        wrong += [f"{drop} was dropped without a reason" for drop in drops]
        beside_ms, drops, beside = measure(programs, 1)
        lateness[1].append(beside_ms)
        print(f"round {number}, with it: 99 % of the frames within {beside_ms:.1f} ms", flush=True)
        if len(drops) != 1 or drops[0]["action"] != "dropped" or drops[0]["mode"] != "play":
            wrong.append(f"not one player was dropped, but: {drops}")
            continue
        dropped_s = drops[0]["unix_seconds"]
        most, after = beside.most_until(dropped_s + 1), beside.first_from(dropped_s + AFTER_DROP_S)
        usual = statistics.median(kib for _, kib in alone.samples)
        print(f"  dropped ({drops[0]['rule']}) {dropped_s - beside.samples[0][0]:.0f} s after the start; memory in KiB: "
              f"{usual:.0f} without it, {most} at the drop, {after} {AFTER_DROP_S} s later", flush=True)
        if after > usual + MOST_MEMORY_KIB:
            wrong.append(f"{AFTER_DROP_S} s after the drop the server occupies {after} KiB, without the player {usual:.0f}")
    ratio = statistics.median(lateness[1]) / statistics.median(lateness[0])
    print(f"lateness with it / without it: {ratio:.3f}")
    if ratio > MOST_LATENESS:
        wrong.append(f"lateness rises by more than {MOST_LATENESS - 1:.0%}")
    for line in wrong:
        print(f"WRONG: {line}")
    return 1 if wrong else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    # Not resolved: a checkout may be made of links.
    parser.add_argument("--programs", type=pathlib.Path, default=ROOT / "build" / "release")
    parser.add_argument("--rounds", type=int, default=2)
    options = parser.parse_args()
    if os.environ.get(INSIDE):
        processes.set_up_namespaces(True)
        return run(options.programs.resolve(), options.rounds)
    user = [] if os.geteuid() == 0 else ["--map-root-user"]
    command = ["unshare", *user, "--net", "--mount", "--pid", "--fork", "--mount-proc", "--kill-child", "--", sys.executable,
               *sys.argv]
    return subprocess.run(command, env={**os.environ, INSIDE: "1"}, check=False).returncode


if __name__ == "__main__":
    sys.exit(main())
