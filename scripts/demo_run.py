#!/usr/bin/env python3
"""Runs what scripts/demo shows: the server, an encoder and two players, then the report, then an endless stream.

Started by scripts/demo, in private namespaces if requested; see its --help.
"""

import argparse
import os
import re
import signal
import socket
import subprocess
import sys
import time

import demo_report
from processes import (RTMP_PORT, Processes, RunError, Server, Stopped, last_lines, port_is_taken,
                       raise_stopped_on_signals, say, set_up_namespaces, wait_until, wait_until_unchanged)
from recordings import ToolError

ROOT_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
OUT_DIR = os.path.join(ROOT_DIR, "out/demo")
SERVER = os.path.join(ROOT_DIR, "build/release/v9_rtmp_server")
CONTROL_SOCKET = "/var/run/v9_rtmp_server.socket"
PUBLISH_URL = "rtmp://127.0.0.1/ombrex-live/demo"
PLAY_URL = "rtmp://127.0.0.1/ombrex-output/demo"
FFMPEG = ["ffmpeg", "-nostdin", "-hide_banner", "-nostats", "-loglevel", "warning"]

PICTURE_SIZE = "1280x720"
FRAMES_PER_S = 30
FRAMES_PER_KEY_FRAME = 60  # The late player joins between two key frames.
SAMPLES_PER_S = 44100
SAMPLES_PER_AUDIO_PACKET = 1024
PUBLISH_S = 12
# ffmpeg resets its connection when it exits, and TCP then discards data in transit. So the stream continues for a
# moment that is not counted.
RUN_OUT_S = 1
LATE_JOIN_S = 4
SETTLE_S = 1.5  # After the publisher has left, no new data for this long means that the players have everything.
SETTLE_LIMIT_S = 10
SHOWN_LINES = re.compile("Connection is publishing |Connection for play |.*rejected|Dropping ")


class Refusal(Exception):
    """The demo cannot start. The arguments are the problem and the advice."""


def require_free_port():
    """Without this check, the server could share the port with another one of the same user."""
    if not port_is_taken():
        return
    holders = set()
    try:
        listing = subprocess.run(["ss", "-Hltnp", f"sport = :{RTMP_PORT}"], capture_output=True, text=True, check=False)
        holders.update(re.findall(r'users:\(\("([^"]*)",pid=(\d+)', listing.stdout))
    except FileNotFoundError:
        pass
    by_whom = "; ".join(f"{name}, process {pid}" for name, pid in sorted(holders))
    raise Refusal(f"TCP port {RTMP_PORT} is taken" + (f" by {by_whom}" if holders else ""),
                  "End that program first, or keep out of its way: scripts/demo --once --private")


def require_free_control_socket():
    """Without this check, the server could take over the socket of another one."""
    if os.path.isdir(CONTROL_SOCKET):
        raise Refusal(f"{CONTROL_SOCKET} is a directory",
                      "The server needs that path for its control socket: remove the directory.")
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as client:
        try:
            client.connect(CONTROL_SOCKET)
        except (FileNotFoundError, ConnectionRefusedError):
            return  # The server removes the socket of a dead one.
        except OSError:
            pass
    raise Refusal(f"the control socket {CONTROL_SOCKET} is taken by a running server",
                  "End that server first, or keep out of its way: scripts/demo --once --private")


def show_progress(text):
    """Writes one line, on a terminal over the previous one."""
    print(f"\r    {text}\033[K" if sys.stdout.isatty() else f"    {text}\n", end="", flush=True)


def kib(path):
    return os.path.getsize(path) // 1024 if os.path.exists(path) else 0


class Demo:
    def __init__(self, processes):
        self.processes = processes
        self.server = None

    def start_server(self):
        self.server = Server(self.processes, SERVER)
        say(f"The server is running as process {self.processes.by_name['server'].pid} and logs to {self.server.log}")

    def start_publisher(self, name, output_format, target, *options):
        """A clock, a frame counter, and a tone that beeps every second."""
        clock = (f"drawtext=fontfile={demo_report.FONT}:text='%{{pts\\:hms}}  frame %{{n}}':fontsize=56:fontcolor=white"
                 ":box=1:boxcolor=black@0.6:boxborderw=14:x=(w-text_w)/2:y=h-120")
        self.start(name, [
            *FFMPEG, "-re", "-f", "lavfi", "-i", f"testsrc2=size={PICTURE_SIZE}:rate={FRAMES_PER_S}",
            "-re", "-f", "lavfi", "-i", f"sine=frequency=440:beep_factor=4:sample_rate={SAMPLES_PER_S}",
            "-map", "0:v", "-map", "1:a", "-vf", clock, *options,
            "-c:v", "libx264", "-preset", "ultrafast", "-bf", "2", "-g", str(FRAMES_PER_KEY_FRAME), "-pix_fmt", "yuv420p",
            "-b:v", "2500k", "-maxrate", "2500k", "-bufsize", "5000k", "-c:a", "aac", "-b:a", "128k",
            "-flags", "+global_header", "-f", output_format, target])

    def start_player(self, name):
        """Records every packet as received, with its timestamp, including those before the first key frame."""
        self.start(f"{name}_player", [
            *FFMPEG, "-i", PLAY_URL, "-map", "0", "-c", "copy", "-copyinkf", "-copypriorss", "1", "-copyts",
            "-avoid_negative_ts", "disabled", "-flush_packets", "1", "-f", "flv", self.processes.path(f"{name}.flv")])

    def start(self, name, arguments):
        self.processes.start(name, arguments, end_signal=signal.SIGINT)

    def wait_for(self, name, line, limit_s):
        """Waits until the server has printed the line, which the named client causes."""
        if self.server.says(line, 1, limit_s, needs=name):
            return
        self.server.require()
        if not self.processes.runs(name):
            raise RunError(f"{name} ended before the server said \"{line}\"", self.processes.log(name))
        raise RunError(f"no \"{line}\" from the server within {limit_s} s", self.server.log)

    def run_stream(self):
        """Publishes for PUBLISH_S seconds with both players."""
        say(f"Starting the early player: {PLAY_URL}")
        self.start_player("early")
        self.wait_for("early_player", "Connection for play subscribed to 'demo'", 15)

        say(f"Publishing {PUBLISH_S} s of {PICTURE_SIZE} at {FRAMES_PER_S} frames/s, H.264 and AAC: {PUBLISH_URL}")
        say(f"(and {RUN_OUT_S} s more, which is not counted: ffmpeg resets its connection at the end)")
        self.start_publisher("publisher", "tee", f"[f=flv:flush_packets=1]{PUBLISH_URL}|[f=flv]published.flv",
                             "-t", str(PUBLISH_S + RUN_OUT_S))
        self.wait_for("publisher", "Connection is publishing 'demo'", 30)
        self.watch_stream()
        status = self.processes.status("publisher")
        if status != 0:
            say(f"The publisher ended with status {status}: see {self.processes.log('publisher')}")
        if "late_player" not in self.processes.by_name:
            raise RunError("the stream ended before the late player could join", self.processes.log("publisher"))
        self.wait_for_players()

    def watch_stream(self):
        """Lets the late player join, and shows progress until the publisher has ended."""
        begin, shown_s = time.monotonic(), -1
        try:
            while self.processes.runs("publisher"):
                self.server.require()
                elapsed_s = time.monotonic() - begin
                if "late_player" not in self.processes.by_name and elapsed_s >= LATE_JOIN_S:
                    self.start_player("late")
                if int(elapsed_s) > shown_s:
                    shown_s = int(elapsed_s)
                    early, late = (kib(self.processes.path(f"{name}.flv")) for name in demo_report.PLAYERS)
                    late_has = f"{late} KiB" if "late_player" in self.processes.by_name else "nothing yet"
                    show_progress(f"{shown_s:2} s: the early player has {early:4} KiB, the late one {late_has}")
                if elapsed_s > PUBLISH_S * 4:
                    raise RunError("the publisher takes more than four times as long as its stream: is this machine too "
                                   "slow?", self.processes.log("publisher"))
                time.sleep(0.1)
        finally:
            if sys.stdout.isatty():
                print()

    def wait_for_players(self):
        """A player is not notified that the stream has ended: it has everything once no more data arrives. Then the
        server is stopped, because a player writes its last packets when its connection ends, but not when it is
        interrupted."""
        recordings = [self.processes.path(f"{name}.flv") for name in demo_report.PLAYERS]
        players = [f"{name}_player" for name in demo_report.PLAYERS]
        wait_until_unchanged(lambda: [os.path.getsize(path) if os.path.exists(path) else 0 for path in recordings],
                             SETTLE_S, SETTLE_LIMIT_S)
        say("Stopping the server")
        problem = self.server.stop()
        if problem:
            raise RunError(problem, self.server.log)
        if not wait_until(lambda: not any(self.processes.runs(name) for name in players), SETTLE_LIMIT_S):
            say("A player continues although the server has ended: interrupting it")
        for name in players:
            self.processes.end(name, signal.SIGINT, 5)

    def check_stream(self):
        say("Comparing what was received with what was published")
        samples = PUBLISH_S * SAMPLES_PER_S
        counts = {"video": PUBLISH_S * FRAMES_PER_S, "audio": -(-samples // SAMPLES_PER_AUDIO_PACKET)}
        everything_arrived = demo_report.report(OUT_DIR, counts)
        return demo_report.write_contact_sheet(OUT_DIR, LATE_JOIN_S) and everything_arrived

    def start_endless_stream(self, namespaces):
        self.start_server()
        self.start_publisher("endless_publisher", "flv", PUBLISH_URL, "-flush_packets", "1")
        print_urls(namespaces)

    def run_endless_stream(self):
        """Runs until a signal, which counts as success."""
        try:
            self.show_who_comes_and_goes()
        except Stopped:
            say_stopping()
        self.processes.end("endless_publisher", signal.SIGINT, 5)
        problem = self.server.stop()
        if problem:
            raise RunError(problem, self.server.log)
        say("Stopped")


    def show_who_comes_and_goes(self):
        """Shows the lines of the server about its clients, for as long as the stream runs."""
        rest = ""
        with open(self.server.log, encoding="utf-8", errors="replace") as log:
            while True:
                *lines, rest = (rest + log.read()).split("\n")
                for line in filter(SHOWN_LINES.match, lines):
                    print(f"    {time.strftime('%H:%M:%S')} server: {line}")
                self.server.require()
                if not self.processes.runs("endless_publisher"):
                    status = self.processes.status("endless_publisher")
                    raise RunError(f"the publisher ended by itself, with status {status}",
                                   self.processes.log("endless_publisher"))
                time.sleep(0.5)


def say_stopping():
    print()
    say("Stopping")


def print_urls(namespaces):
    host = "127.0.0.1"
    if namespaces != "all":
        addresses = subprocess.run(["hostname", "-I"], capture_output=True, text=True, check=False).stdout.split()
        host = addresses[0] if addresses else host
    remark = "" if host == "127.0.0.1" else f" On this machine, 127.0.0.1 works as well as {host}."
    print(f"""
    The stream 'demo' runs until Ctrl-C.{remark}

    Play it
      VLC      Media, Open Network Stream:   rtmp://{host}/ombrex-output/demo
      ffmpeg   ffplay rtmp://{host}/ombrex-output/demo

    Publish one of your own, H.264 and AAC; the name is letters, digits and underscores
      OBS      Settings, Stream, Custom:     Server rtmp://{host}/ombrex-live   Stream key mine
      ffmpeg   ffmpeg -re -i FILE -c:v libx264 -c:a aac -f flv rtmp://{host}/ombrex-live/mine
      and play rtmp://{host}/ombrex-output/mine
""")
    if namespaces == "all":
        say("Private namespaces: nothing outside of this demo can reach these URLs.")
    elif namespaces == "files":
        say("Not run by root: the control socket is in a /run that only this demo sees.")


def fail(text, *lines):
    """Returns the exit status."""
    print(f"demo: {text}", *(f"    {line}" for line in lines), sep="\n", file=sys.stderr)
    return 1


def run(arguments):
    """Returns the exit status."""
    if arguments.namespaces != "none":
        set_up_namespaces(own_network=arguments.namespaces == "all")
    require_free_port()
    require_free_control_socket()
    with Processes(OUT_DIR) as processes:
        demo = Demo(processes)
        try:
            demo.start_server()
            demo.run_stream()
            if not demo.check_stream():
                return fail("not everything arrived as it was published",
                            "The lines below the table say what is wrong.", f"Recordings and logs: {OUT_DIR}")
            say("Everything arrived")
            if not arguments.once:
                demo.start_endless_stream(arguments.namespaces)
        except Stopped:
            say_stopping()
            raise
        if not arguments.once:
            demo.run_endless_stream()
    return 0


def look(namespaces):
    """Refuses for reasons that are visible outside the namespaces."""
    if namespaces != "all":
        require_free_port()
    if namespaces == "none":
        require_free_control_socket()


def main():
    parser = argparse.ArgumentParser(description="See scripts/demo --help.")
    parser.add_argument("--namespaces", choices=("none", "files", "all"), required=True)
    parser.add_argument("--once", action="store_true")
    parser.add_argument("--look", action="store_true", help="only see whether port and control socket are free")
    arguments = parser.parse_args()
    sys.stdout.reconfigure(line_buffering=True)  # Otherwise lines of standard error could come first.
    try:
        raise_stopped_on_signals()
        if arguments.look:
            look(arguments.namespaces)
            return 0
        return run(arguments)
    except Refusal as refusal:
        return fail(*refusal.args)
    except ToolError as error:
        return fail(f"this failed: {error}")
    except RunError as error:
        if error.log:
            print(f"Last lines of {error.log}:", *(f"    | {line}" for line in last_lines(error.log, 12)), sep="\n",
                  file=sys.stderr)
        return fail(str(error), *(["The other logs are next to it."] if error.log else []))
    except Stopped as stopped:
        return stopped.status


if __name__ == "__main__":
    sys.exit(main())
