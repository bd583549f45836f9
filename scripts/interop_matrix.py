#!/usr/bin/env python3
"""Runs publishers against players through the real server and compares what arrived with what was published.

Started by scripts/interop, in namespaces of its own; see its --help. All players play one publisher's stream at once,
each twice: from before the stream begins, and joining late. A pair works if every player has every packet after its
first one unchanged and in order, with even timestamps that begin near 0, and if every frame decodes from the first key
frame on.
"""

import argparse
import collections
import os
import pwd
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import textwrap
import time
from dataclasses import dataclass, field, replace

import demo_report
import interop_clients as clients
from demo_report import KINDS, ToolError

ROOT_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SERVER = os.path.join(ROOT_DIR, "build/release/v9_rtmp_server")
PAGE = os.path.join(ROOT_DIR, "docs/clients.md")
PAGE_BEGIN, PAGE_END = "<!-- measured: begin -->", "<!-- measured: end -->"

STREAM_NAME = "camera"
FRAMES_PER_S = 25
FRAMES_PER_KEY_FRAME = 25
DEFAULT_S, LEAST_S = 10, 6
LATE_JOIN_S = 3.4  # Between two key frames.
# An encoder that does not read the server's acknowledgements leaves with a reset of its connection, and TCP then
# throws away what was on its way; players that take a stream apart keep some of its end to themselves. So the stream
# runs on for a moment that does not count.
RUN_OUT_S = 1.5
LEAST_PUBLISHED = 0.8  # of the stream; an encoder may be slow to start
SETTLE_S = 1.5  # Nothing new for so long means that the players have it all.
SETTLE_LIMIT_S = 10
START_LIMIT_S = 25  # for a client to load and connect
REFUSAL_LIMIT_S = 8
END_LIMIT_S = 4  # for a player to end when the server is gone
POLL_S = 0.02

UNEVEN_RECORDING = "non monotonically increasing dts"  # ffmpeg's words about timestamps, while it decodes

WORKS, ENDS, CANNOT, DEFECT = "works", "ends", "cannot", "DEFECT"
WORN_OUT_TOLERANCE = 3  # packets that a player has received but not recorded, or still made something of


class MatrixError(Exception):
    """Nothing could be compared."""


def say(text):
    print(f"==> {text}", flush=True)


def wait_until(condition, limit_s):
    """True as soon as the condition holds, false if it does not in time."""
    deadline = time.monotonic() + limit_s
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(POLL_S)
    return True


def tail_of(path, lines=3):
    with open(path, encoding="utf-8", errors="replace") as file:
        return " | ".join(line.strip()[-200:] for line in file.read().replace("\r", "\n").splitlines()[-lines:])


def text_of(path):
    with open(path, encoding="utf-8", errors="replace") as file:
        return file.read()


class Bench:
    """A directory, and the processes that run in it: each with a log of its own, all ended with it."""

    def __init__(self, directory):
        self.directory = directory
        self.processes = {}
        os.makedirs(directory, exist_ok=True)

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        for process in self.processes.values():
            self.end(process, signal.SIGKILL, 5)

    def path(self, name):
        return os.path.join(self.directory, name)

    def log(self, name):
        return self.path(name + ".log")

    def start(self, name, arguments, *, environment=None, user=None, stdout=None):
        everything = {**os.environ, "HOME": self.directory, **(environment or {})}
        identity = {}
        if user is not None:
            entry = pwd.getpwnam(user)
            identity = {"user": entry.pw_uid, "group": entry.pw_gid, "extra_groups": []}
        with open(self.log(name), "w", encoding="utf-8") as log:
            self.processes[name] = subprocess.Popen(  # pylint: disable=consider-using-with
                arguments, stdin=subprocess.DEVNULL, stdout=stdout or log, stderr=log, env=everything,
                cwd=self.directory, start_new_session=True, **identity)
        return self.processes[name]

    def end(self, process, number, limit_s):
        """Its exit status; killed if it does not end in time."""
        if process.poll() is None:
            process.send_signal(number)
        try:
            return process.wait(limit_s)
        except subprocess.TimeoutExpired:
            process.kill()
            return process.wait()


class Server:
    def __init__(self, bench, program, options=()):
        self.bench = bench
        self.process = bench.start("server", [program, *options])
        if not wait_until(self.listens, 5):
            raise MatrixError(f"the server does not listen: {tail_of(bench.log('server'))}")

    @staticmethod
    def listens():
        """Looked up, not tried: the server would count the visitor among its connections."""
        return re.search(r":078F 0{8}:0000 0A ", text_of("/proc/net/tcp")) is not None

    def count(self, begin):
        """How many of its lines begin so."""
        return sum(line.startswith(begin) for line in text_of(self.bench.log("server")).splitlines())

    def says(self, begin, times, limit_s):
        wait_until(lambda: self.count(begin) >= times or self.process.poll() is not None, limit_s)
        return self.count(begin) >= times

    def stop(self):
        """None, or what is wrong with how it ended."""
        early = self.process.poll()
        status = self.bench.end(self.process, signal.SIGTERM, 10)
        if early is None and status == 0:
            return None
        return f"the server ended {'by itself, ' if early is not None else ''}with status {status}"


# --- what was published and received -------------------------------------------------------------------------------


def read_recording(path, pictures_only=False):
    """Its packets by kind, in order of arrival; none if there is no audio or video in it."""
    try:
        packets = demo_report.read_packets(path)
    except ToolError:
        return {kind: [] for kind in KINDS}
    if pictures_only and packets["video"]:
        digests = picture_digests(path)
        if len(digests) != len(packets["video"]):
            raise MatrixError(f"{path}: {len(packets['video'])} frames, but {len(digests)} pictures")
        packets["video"] = [replace(packet, digest=digest) for packet, digest in zip(packets["video"], digests)]
    return packets


def picture_digests(path):
    """Of each video packet without its parameter sets, delimiters and supplements (NAL unit types 6 to 9)."""
    listing = demo_report.run_tool(
        ["ffmpeg", "-nostdin", "-v", "error", "-i", path, "-map", "0:v", "-c", "copy", "-copyinkf", "-copypriorss", "1",
         "-copyts", "-avoid_negative_ts", "disabled", "-bsf:v", "h264_mp4toannexb,filter_units=remove_types=6-9",
         "-f", "framehash", "-hash", "md5", "-"]).stdout
    return [line.rsplit(",", 1)[1].strip() for line in listing.splitlines() if line and not line.startswith("#")]


@dataclass(frozen=True)
class Published:
    packets: dict
    counts: dict  # So many from the beginning count.


def count_published(packets, end_may_be_lost):
    """Without the last moments where these may be lost."""
    counts = {}
    for kind in KINDS:
        times = [packet.dts_ms for packet in packets[kind]]
        limit = max(times, default=0) - (RUN_OUT_S * 1000 if end_may_be_lost else 0)
        counts[kind] = sum(time_ms <= limit for time_ms in times)
    return Published(packets, counts)


def without_beginning(packets, recordings):
    """The published packets from the first on that any of the recordings has, with the recordings' own digests."""
    cut = {}
    for kind in KINDS:
        firsts = {recording[kind][0].digest for recording in recordings if recording[kind]}
        begin = next((i for i, packet in enumerate(packets[kind]) if packet.digest in firsts), 0)
        cut[kind] = packets[kind][begin:]
    return cut


def without_run_out(received, published):
    """The received packets up to the last that counts; all if that one never came."""
    cut = {}
    for kind in KINDS:
        count = published.counts[kind]
        last = published.packets[kind][count - 1].digest if count > 0 else None
        end = next((i for i in reversed(range(len(received[kind]))) if received[kind][i].digest == last), None)
        cut[kind] = received[kind] if end is None else received[kind][:end + 1]
    return cut


@dataclass
class Outcome:
    """What one player received of one publisher's stream, in one of its two runs."""

    publisher: clients.Publisher
    player: clients.Player
    is_late: bool
    published: dict = field(default_factory=dict)  # numbers by kind, from the player's first packet on
    received: dict = field(default_factory=dict)  # packets by kind, up to the last that counts
    comparisons: dict = field(default_factory=dict)
    from_key_frame: int = 0
    decoded: int = 0
    decode_errors: list = field(default_factory=list)
    problems: list = field(default_factory=list)
    verdict: str = DEFECT

    @property
    def name(self):
        return run_name(self.player, self.is_late)


def run_name(player, is_late):
    return f"{player.name}.{'late' if is_late else 'early'}"


def examine(outcome, published, received, recording):
    """Fills in what was received."""
    outcome.received = received = without_run_out(received, published)
    for kind in KINDS:
        comparison = demo_report.compare(published.packets[kind], received[kind], published.counts[kind])
        outcome.comparisons[kind] = comparison
        outcome.published[kind] = published.counts[kind] - (comparison.before_join if outcome.is_late else 0)
    key_frame = demo_report.first_key_frame(received["video"])
    if key_frame is not None:
        outcome.from_key_frame = max(0, outcome.comparisons["video"].received - key_frame)
    if outcome.from_key_frame > 0:
        outcome.decoded, outcome.decode_errors = demo_report.decode_from_key_frame(
            recording, recording.replace(".flv", ".decodable.flv"), outcome.from_key_frame)
    elif received["audio"] and not received["video"]:
        _, outcome.decode_errors = demo_report.decode(recording)
    if not outcome.player.keeps_timestamps:
        outcome.decode_errors = [error for error in outcome.decode_errors if UNEVEN_RECORDING not in error]


def problems_of(outcome, published):
    """Why this player did not get the stream; empty if it did."""
    kinds = [kind for kind in KINDS if published.counts[kind] > 0]
    problems = []
    for kind in KINDS:
        if kind in kinds:
            problems += demo_report.check_received(
                outcome.name, outcome.received, outcome.comparisons, outcome.is_late, (kind,),
                outcome.player.keeps_timestamps)
        elif outcome.received[kind]:
            problems.append(f"{outcome.name}: has {kind}, which was never published")
    if not kinds:
        problems.append("nothing was published")
    if "video" in kinds:
        problems += demo_report.check_decoded(
            outcome.name, outcome.from_key_frame, outcome.decoded, outcome.decode_errors)
    elif outcome.decode_errors:
        problems.append(f"{outcome.name}: {len(outcome.decode_errors)} decode errors: {outcome.decode_errors[0]}")
    return problems


def judge(outcome, published, evidence):
    """Sets the verdict; evidence is none, or what is missing to show that the pair cannot work."""
    if outcome.player.cannot is None:
        outcome.problems = problems_of(outcome, published)
        outcome.verdict = DEFECT if outcome.problems else WORKS
        return
    if any(outcome.received.values()):
        outcome.problems = [f"{outcome.name}: received media, although it is said that it cannot"]
    elif evidence:
        outcome.problems = [f"{outcome.name}: received nothing, but not for the reason known: {evidence}"]
    outcome.verdict = DEFECT if outcome.problems else CANNOT


def judge_worn_out(outcome, expected):
    """For a player whose timestamps outgrow 24 bits: it must have come to an end there, after the expected packets."""
    for kind in KINDS:
        received = outcome.comparisons[kind].received - outcome.comparisons[kind].foreign
        if abs(received - expected[kind]) > WORN_OUT_TOLERANCE:
            outcome.problems.append(f"{outcome.name}: has {received} {demo_report.UNITS[kind]}, although it is known "
                                    f"to end after {expected[kind]}")
    outcome.verdict = DEFECT if outcome.problems else ENDS


# --- one publisher, all players -------------------------------------------------------------------------------------


class Session:
    """One server, one publisher, and every player twice."""

    def __init__(self, bench, program, publisher, players, film, seconds):
        self.bench = bench
        self.publisher = publisher
        self.players = players
        self.film = film
        self.seconds = seconds
        self.published_path = bench.path("published.flv")
        # VLC runs as somebody else.
        os.makedirs(bench.path("recordings"), exist_ok=True)
        os.chmod(bench.path("recordings"), 0o777)
        self.server = Server(bench, program, publisher.server_options)

    def recording(self, player, is_late):
        return self.bench.path(f"recordings/{run_name(player, is_late)}.flv")

    def start_players(self, is_late):
        for player in self.players:
            arguments = player.command(clients.PLAY_URL + STREAM_NAME, self.recording(player, is_late))
            environment = dict(player.environment or {})
            if player.user is not None:
                environment["HOME"] = self.bench.path("recordings")
            self.bench.start(run_name(player, is_late), arguments, environment=environment, user=player.user)

    def wait_for_players(self):
        """Until all have subscribed that ever will."""
        expected = sum(player.cannot is None or player.cannot.server_says is None for player in self.players)
        self.server.says("Connection for play subscribed to", expected, START_LIMIT_S)

    def start_publisher(self):
        publisher = self.publisher
        url = clients.PUBLISH_URL + STREAM_NAME
        environment = dict(publisher.environment or {})
        if publisher.prepare is not None:
            environment.update(
                publisher.prepare(self.bench.directory, url, self.film, self.published_path, self.bench.start))
        process = self.bench.start(
            "publisher", publisher.command(url, self.film, self.published_path), environment=environment)
        line = f"Connection is publishing '{STREAM_NAME}'"
        if not self.server.says(line, 1, START_LIMIT_S):
            raise MatrixError(f"{publisher.name} does not publish: {tail_of(self.bench.log('publisher'))}")
        return process, time.monotonic()

    def run(self):
        """Publishes the film. What is wrong with the server afterwards, or none."""
        self.start_players(is_late=False)
        self.wait_for_players()
        process, begin = self.start_publisher()
        time.sleep(max(0.0, begin + LATE_JOIN_S - time.monotonic()))
        self.start_players(is_late=True)
        length_s = self.seconds + RUN_OUT_S
        if self.publisher.ends_by_itself and not wait_until(lambda: process.poll() is not None, 3 * length_s + 20):
            raise MatrixError(f"{self.publisher.name} does not end: is this machine too slow?")
        time.sleep(max(0.0, begin + length_s - time.monotonic()))
        self.bench.end(process, signal.SIGKILL, 5)
        self.settle()
        wrong = self.server.stop()
        self.end_players()
        self.find_recording()
        return wrong

    def settle(self):
        """Players are not told that a stream has ended."""
        last, change = -1, time.monotonic()
        deadline = change + SETTLE_LIMIT_S
        while time.monotonic() < min(change + SETTLE_S, deadline):
            folder = self.bench.path("recordings")
            size = sum(entry.stat().st_size for entry in os.scandir(folder) if entry.name.endswith(".flv"))
            if size != last:
                last, change = size, time.monotonic()
            time.sleep(0.1)

    def end_players(self):
        players = [self.bench.processes[run_name(player, is_late)]
                   for player in self.players for is_late in (False, True)]
        wait_until(lambda: all(process.poll() is not None for process in players), END_LIMIT_S)
        for process in players:
            self.bench.end(process, signal.SIGINT, 2)

    def find_recording(self):
        """OBS names its recording by itself."""
        if self.publisher.records and not os.path.exists(self.published_path):
            made = [entry.path for entry in os.scandir(self.bench.directory) if entry.name.endswith(".flv")]
            if len(made) != 1:
                raise MatrixError(f"{self.publisher.name} left {len(made)} recordings of what it published, not one")
            os.rename(made[0], self.published_path)

    def published(self, pictures_only, end_may_be_lost):
        path = self.published_path if self.publisher.records else self.film
        packets = read_recording(path, pictures_only)
        if not self.publisher.records:
            for kind in KINDS:
                if kind in self.publisher.leaves_out:
                    packets[kind] = []
        if self.publisher.records_before_stream:
            early = [read_recording(self.recording(player, False), pictures_only) for player in self.players]
            packets = without_beginning(packets, early)
        return count_published(packets, end_may_be_lost)

    def require_length(self, published):
        """A short stream would make every comparison worthless."""
        video, least = published.counts["video"], LEAST_PUBLISHED * self.seconds * FRAMES_PER_S
        if "video" not in self.publisher.leaves_out and video < least:
            raise MatrixError(f"{self.publisher.name} has published {video} frames, not {least:.0f} at least: "
                              f"{tail_of(self.bench.log('publisher'))}")

    def packets_before_long_timestamps(self, published):
        """How many of each kind; ffmpeg counts from the film's own beginning."""
        listing = demo_report.run_tool(["ffprobe", "-v", "error", "-show_entries", "format=start_time", "-of",
                                        "default=noprint_wrappers=1:nokey=1", self.film]).stdout
        shift_ms = self.publisher.clock_ms - round(float(listing) * 1000)
        return {kind: sum(packet.dts_ms + shift_ms < clients.FIRST_LONG_TIMESTAMP_MS
                          for packet in published.packets[kind]) for kind in KINDS}

    def missing_evidence(self, player, is_late):
        """Why the log does not show that this player cannot work; none if it does."""
        cannot = player.cannot
        if cannot is None:
            return None
        if cannot.server_says is not None:
            runs = 2 * sum(other.cannot is not None and other.cannot.server_says == cannot.server_says
                           for other in self.players)
            said = self.server.count(cannot.server_says)
            return None if said == runs else f"the server says \"{cannot.server_says}\" {said} times, not {runs}"
        log = text_of(self.bench.log(run_name(player, is_late)))
        return None if re.search(cannot.client_says, log) else f"its log has no \"{cannot.client_says}\""

    def outcomes(self):
        published = {}
        result = []
        for player in self.players:
            pictures_only = player.alters_key_frames or self.publisher.alters_key_frames
            way = (pictures_only, player.withholds_end or self.publisher.end_may_be_lost)
            if way not in published:
                published[way] = self.published(*way)
                self.require_length(published[way])
            for is_late in (False, True):
                outcome = Outcome(self.publisher, player, is_late)
                recording = self.recording(player, is_late)
                examine(outcome, published[way], read_recording(recording, pictures_only), recording)
                if self.publisher.clock_ms > 0 and not is_late and player.cannot is None:
                    judge_worn_out(outcome, self.packets_before_long_timestamps(published[way]))
                else:
                    judge(outcome, published[way], self.missing_evidence(player, is_late))
                if outcome.problems:
                    outcome.problems.append(f"its last lines: {tail_of(self.bench.log(outcome.name))}")
                result.append(outcome)
        return result


def run_session(directory, program, publisher, players, film, seconds):
    """The outcomes, and what is wrong beside them."""
    say(f"{publisher.name} ({publisher.shown_as}) and {len(players)} players, each early and late")
    with Bench(os.path.join(directory, publisher.name)) as bench:
        session = Session(bench, program, publisher, players, film, seconds)
        try:
            wrong = session.run()
            return session.outcomes(), [f"{publisher.name}: {wrong}"] if wrong else []
        except MatrixError as error:
            return [], [str(error)]


# --- what the server refuses ----------------------------------------------------------------------------------------


def run_refusals(directory, program, refusals, film):
    """Names of those that the server refused with the line known, and what is wrong with the others."""
    refused, wrong = [], []
    with Bench(os.path.join(directory, "refusals")) as bench:
        server = Server(bench, program)
        for refusal in refusals:
            say(f"Refused: {refusal.name}")
            said, dropped = server.count(refusal.server_says), server.count("Dropping connection")
            process = bench.start(refusal.name, refusal.command(film))
            if not server.says(refusal.server_says, said + 1, REFUSAL_LIMIT_S):
                wrong.append(f"{refusal.name}: the server does not say \"{refusal.server_says}\"")
            elif not server.says("Dropping connection", dropped + 1, 5):
                wrong.append(f"{refusal.name}: the server does not drop the connection")
            else:
                refused.append(refusal.name)
            bench.end(process, signal.SIGKILL, 5)
            # It may have left a connection behind, which is not the next one's.
            server.says("Dropping connection", server.count("Accepted connection"), 5)
        problem = server.stop()
        if problem:
            wrong.append(problem)
    return refused, wrong


# --- reports ------------------------------------------------------------------------------------------------------


def counts_of(outcome, kind):
    if outcome.published[kind] == 0 and not outcome.received[kind]:
        return "-", "", ""
    comparison = outcome.comparisons[kind]
    lost = comparison.missing + (0 if outcome.is_late else comparison.before_join)
    return f"{comparison.received - comparison.foreign} of {outcome.published[kind]}", lost, comparison.foreign


def print_outcomes(outcomes):
    head = ("publisher", "player", "joins", "video frames", "lost", "corrupt", "audio packets", "lost", "corrupt",
            "first ms", "decoded", "errors", "verdict")
    rows = [head]
    for outcome in outcomes:
        firsts = "/".join(str(outcome.received[kind][0].dts_ms) if outcome.received[kind] else "-" for kind in KINDS)
        if not outcome.player.keeps_timestamps:
            firsts = "not kept"
        decoded = f"{outcome.decoded} of {outcome.from_key_frame}" if outcome.from_key_frame else "-"
        rows.append((outcome.publisher.name, outcome.player.name, "late" if outcome.is_late else "early",
                     *counts_of(outcome, "video"), *counts_of(outcome, "audio"), firsts, decoded,
                     len(outcome.decode_errors), outcome.verdict))
    widths = [max(len(str(row[i])) for row in rows) for i in range(len(head))]
    left = (0, 1, 2, len(head) - 1)
    print()
    for row in rows:
        cells = [str(cell).ljust(width) if i in left else str(cell).rjust(width)
                 for i, (cell, width) in enumerate(zip(row, widths))]
        print("    " + "  ".join(cells).rstrip())
    print(flush=True)


def page_cell(outcomes):
    """Both runs of a pair."""
    if any(outcome.verdict == DEFECT for outcome in outcomes):
        return "**defect**"
    if any(outcome.verdict == CANNOT for outcome in outcomes):
        return "cannot"
    lines = []
    for outcome in outcomes:
        counts = [counts_of(outcome, kind)[0].split(" ")[0] for kind in KINDS if outcome.published[kind] > 0]
        lines.append(" + ".join(counts) + (", ends" if outcome.verdict == ENDS else ""))
    return "<br>".join(lines)


def published_cell(outcomes):
    return " + ".join(str(outcomes[0].published[kind]) for kind in KINDS if outcomes[0].published[kind] > 0)


def page_tables(outcomes, refused):
    """The generated part of docs/clients.md."""
    by_pair = collections.defaultdict(list)
    for outcome in outcomes:
        by_pair[outcome.publisher.name, outcome.player.name].append(outcome)
    publishers = list(dict.fromkeys(outcome.publisher for outcome in outcomes))
    players = list(dict.fromkeys(outcome.player for outcome in outcomes))
    lines = ["| publisher | published | " + " | ".join(player.shown_as for player in players) + " |",
             "| --- |" + " --- |" * (len(players) + 1)]
    for publisher in publishers:
        pairs = [by_pair[publisher.name, player.name] for player in players]
        lines.append(f"| {publisher.shown_as} | {published_cell(pairs[0])} | "
                     + " | ".join(page_cell(pair) for pair in pairs) + " |")
    lines += ["", "| player | cannot, because |", "| --- | --- |"]
    lines += [f"| {player.shown_as} | {player.cannot.reason} |" for player in players if player.cannot]
    lines += ["", "| refused | the server says | what works |", "| --- | --- | --- |"]
    lines += [f"| {refusal.shown_as} | `{refusal.server_says}` | {refusal.instead} |"
              for refusal in clients.REFUSALS if refusal.name in refused]
    lines += ["", *textwrap.wrap("Versions: " + ", ".join(package_versions()) + ".", 120, break_on_hyphens=False)]
    return "\n".join(lines)


def package_versions():
    packages = {player.package for player in clients.PLAYERS}
    for publisher in clients.PUBLISHERS:
        packages.update(publisher.packages)
    listing = demo_report.run_tool(["dpkg-query", "-W", "-f", "${Package} ${Version}\n", *sorted(packages)]).stdout
    return listing.splitlines()


def update_page(tables):
    before, rest = text_of(PAGE).split(PAGE_BEGIN)
    _, after = rest.split(PAGE_END)
    with open(PAGE, "w", encoding="utf-8") as file:
        file.write(f"{before}{PAGE_BEGIN}\n{tables}\n{PAGE_END}{after}")
    say(f"Written: {PAGE}")


def list_clients():
    for title, entries in (("publishers", clients.PUBLISHERS), ("players", clients.PLAYERS),
                           ("refusals", clients.REFUSALS)):
        print(f"{title}:")
        for entry in entries:
            cannot = getattr(entry, "cannot", None)
            print(f"    {entry.name:14} {entry.shown_as}" + (f" (cannot: {cannot.reason})" if cannot else ""))


# --- the whole ------------------------------------------------------------------------------------------------------


def write_film(path, seconds):
    """B-frames, a key frame each second, and a tone."""
    demo_report.run_tool(
        ["ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "lavfi", "-i", f"testsrc2=size=320x240:rate={FRAMES_PER_S}",
         "-f", "lavfi", "-i", "sine=frequency=440:beep_factor=4:sample_rate=44100", "-t", str(seconds),
         "-c:v", "libx264", "-preset", "ultrafast", "-bf", "2", "-g", str(FRAMES_PER_KEY_FRAME), "-pix_fmt", "yuv420p",
         "-b:v", "400k", "-c:a", "aac", "-b:a", "96k", "-flags", "+global_header", "-f", "flv", path])


def run_matrix(directory, program, publishers, players, refusals, seconds):
    """Outcomes, refused names, and everything that is wrong."""
    film = os.path.join(directory, "film.flv")
    write_film(film, seconds + RUN_OUT_S)
    outcomes, wrong = [], []
    for publisher in publishers if players else ():
        of_publisher, problems = run_session(directory, program, publisher, players, film, seconds)
        outcomes += of_publisher
        wrong += problems
        print_outcomes(of_publisher)
    refused = []
    if refusals:
        refused, problems = run_refusals(directory, program, refusals, film)
        wrong += problems
    for outcome in outcomes:
        wrong += [f"{outcome.publisher.name} -> {problem}" for problem in outcome.problems]
    return outcomes, refused, wrong


def selected(entries, names):
    known = {entry.name: entry for entry in entries}
    for name in names:
        if name not in known:
            raise MatrixError(f"no '{name}' among {', '.join(known)}: scripts/interop --list")
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
    arguments = parser.parse_args()
    if arguments.seconds < LEAST_S:
        parser.error(f"--seconds must be at least {LEAST_S}, or nobody could join late")
    if arguments.update_page and (arguments.publisher or arguments.player or arguments.refusal):
        parser.error("--update-page takes the whole matrix")
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
    say(f"{verdicts[WORKS]} runs work, {verdicts[ENDS]} end where known, {verdicts[CANNOT]} cannot for a reason known, "
        f"{verdicts[DEFECT]} defects; {len(refused)} refused as known; {len(wrong)} lines about what is wrong; "
        f"{time.monotonic() - begin:.0f} s")
    return not wrong


def main():
    arguments = parse_arguments()
    if arguments.list:
        list_clients()
        return 0
    directory = tempfile.mkdtemp(prefix="v9_interop_")
    os.chmod(directory, 0o755)
    good = False
    try:
        if arguments.self_test:
            import interop_self_test  # pylint: disable=import-outside-toplevel
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
    except (MatrixError, ToolError) as error:
        sys.exit(f"interop: this failed: {error}")
