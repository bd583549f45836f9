"""Runs publishers against players through the real server.

All players play one publisher's stream at once, each twice: from before the stream begins, and joining late. A pair
works if every player has every packet after its first one, unchanged and in order, with accurate timestamps that begin
near 0, and if every frame from the first key frame on can be decoded.
"""

import os
import re
import signal
import time

import interop_clients as clients
import recordings
from interop_outcomes import (RUN_OUT_S, Outcome, count_published, examine, judge, judge_worn_out, read_recording,
                              run_name, without_beginning)
from interop_report import print_outcomes
from processes import Processes, RunError, Server, last_lines, say, text_of, wait_until, wait_until_unchanged
from recordings import KINDS

STREAM_NAME = "camera"
LEAST_S = 6  # of a stream that a player can join late
FRAMES_PER_S = 25
FRAMES_PER_KEY_FRAME = 25
LATE_JOIN_S = 3.4  # Between two key frames.
LEAST_PUBLISHED = 0.8  # of the stream; an encoder may be slow to start
SETTLE_S = 1.5  # No new data for this long means that the players have everything.
SETTLE_LIMIT_S = 10
START_LIMIT_S = 25  # for a client to load and connect
REFUSAL_LIMIT_S = 8
END_LIMIT_S = 4  # for a player to exit after the server is gone


def tail_of(path, lines=3):
    return " | ".join(line.strip()[-200:] for line in last_lines(path, lines))


class Session:
    """One server, one publisher, and every player twice."""

    def __init__(self, processes, program, publisher, players, film, seconds):
        self.processes = processes
        self.publisher = publisher
        self.players = players
        self.film = film
        self.seconds = seconds
        self.published_path = processes.path("published.flv")
        # VLC runs as another user.
        os.makedirs(processes.path("recordings"), exist_ok=True)
        os.chmod(processes.path("recordings"), 0o777)
        self.server = Server(processes, program, publisher.server_options)

    def recording(self, player, is_late):
        return self.processes.path(f"recordings/{run_name(player, is_late)}.flv")

    def start_players(self, is_late):
        for player in self.players:
            arguments = player.command(clients.PLAY_URL + STREAM_NAME, self.recording(player, is_late))
            environment = dict(player.environment or {})
            if player.user is not None:
                environment["HOME"] = self.processes.path("recordings")
            self.processes.start(run_name(player, is_late), arguments, environment=environment, user=player.user)

    def wait_for_players(self):
        """Waits until all players that will ever subscribe have done so."""
        expected = sum(player.cannot is None or player.cannot.server_says is None for player in self.players)
        self.server.says("Connection for play subscribed to", expected, START_LIMIT_S)

    def start_publisher(self):
        publisher = self.publisher
        url = clients.PUBLISH_URL + STREAM_NAME
        environment = dict(publisher.environment or {})
        if publisher.prepare is not None:
            environment.update(
                publisher.prepare(self.processes.directory, url, self.film, self.published_path, self.processes.start))
        self.processes.start(
            "publisher", publisher.command(url, self.film, self.published_path), environment=environment)
        line = f"Connection is publishing '{STREAM_NAME}'"
        if not self.server.says(line, 1, START_LIMIT_S):
            raise RunError(f"{publisher.name} does not publish: {tail_of(self.processes.log('publisher'))}")
        return time.monotonic()

    def run(self):
        """Publishes the film. Returns what is wrong with the server afterwards, or none."""
        self.start_players(is_late=False)
        self.wait_for_players()
        begin = self.start_publisher()
        time.sleep(max(0.0, begin + LATE_JOIN_S - time.monotonic()))
        self.start_players(is_late=True)
        length_s = self.seconds + RUN_OUT_S
        if self.publisher.ends_by_itself and not wait_until(
                lambda: not self.processes.runs("publisher"), 3 * length_s + 20):
            raise RunError(f"{self.publisher.name} does not end: is this machine too slow?")
        time.sleep(max(0.0, begin + length_s - time.monotonic()))
        self.processes.end("publisher", signal.SIGKILL, 5)
        self.settle()
        wrong = self.server.stop()
        self.end_players()
        self.find_recording()
        return wrong

    def settle(self):
        """Waits until the recordings stop growing: players are not notified that a stream has ended."""
        folder = self.processes.path("recordings")
        wait_until_unchanged(
            lambda: sum(entry.stat().st_size for entry in os.scandir(folder) if entry.name.endswith(".flv")),
            SETTLE_S, SETTLE_LIMIT_S)

    def end_players(self):
        players = [run_name(player, is_late) for player in self.players for is_late in (False, True)]
        wait_until(lambda: not any(self.processes.runs(name) for name in players), END_LIMIT_S)
        for name in players:
            self.processes.end(name, signal.SIGINT, 2)

    def find_recording(self):
        """Finds the recording of OBS, which chooses the name itself."""
        if self.publisher.records and not os.path.exists(self.published_path):
            made = [entry.path for entry in os.scandir(self.processes.directory) if entry.name.endswith(".flv")]
            if len(made) != 1:
                raise RunError(f"{self.publisher.name} left {len(made)} recordings of what it published, not one")
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
        """Checks the length: a short stream would make every comparison worthless."""
        video, least = published.counts["video"], LEAST_PUBLISHED * self.seconds * FRAMES_PER_S
        if "video" not in self.publisher.leaves_out and video < least:
            raise RunError(f"{self.publisher.name} has published {video} frames; at least {least:.0f} are required: "
                              f"{tail_of(self.processes.log('publisher'))}")

    def packets_before_long_timestamps(self, published):
        """Returns the number of each kind; ffmpeg counts from the film's own beginning."""
        listing = recordings.run_tool(["ffprobe", "-v", "error", "-show_entries", "format=start_time", "-of",
                                        "default=noprint_wrappers=1:nokey=1", self.film]).stdout
        shift_ms = self.publisher.clock_ms - round(float(listing) * 1000)
        return {kind: sum(packet.dts_ms + shift_ms < clients.FIRST_LONG_TIMESTAMP_MS
                          for packet in published.packets[kind]) for kind in KINDS}

    def missing_evidence(self, player, is_late):
        """Returns why the log does not show that this player cannot work; none if it does."""
        cannot = player.cannot
        if cannot is None:
            return None
        if cannot.server_says is not None:
            runs = 2 * sum(other.cannot is not None and other.cannot.server_says == cannot.server_says
                           for other in self.players)
            said = self.server.count(cannot.server_says)
            return None if said == runs else f"the server says \"{cannot.server_says}\" {said} times, not {runs}"
        log = text_of(self.processes.log(run_name(player, is_late)))
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
                    outcome.problems.append(f"its last lines: {tail_of(self.processes.log(outcome.name))}")
                result.append(outcome)
        return result


def run_session(directory, program, publisher, players, film, seconds):
    """Returns the outcomes, and other problems."""
    say(f"{publisher.name} ({publisher.shown_as}) and {len(players)} players, each early and late")
    with Processes(os.path.join(directory, publisher.name)) as processes:
        session = Session(processes, program, publisher, players, film, seconds)
        try:
            wrong = session.run()
            return session.outcomes(), [f"{publisher.name}: {wrong}"] if wrong else []
        except RunError as error:
            return [], [str(error)]


def run_refusals(directory, program, refusals, film):
    """Returns the names of those that the server refused with the expected line, and the problems of the others."""
    refused, wrong = [], []
    with Processes(os.path.join(directory, "refusals")) as processes:
        server = Server(processes, program)
        for refusal in refusals:
            say(f"Refused: {refusal.name}")
            said, dropped = server.count(refusal.server_says), server.count("Dropping connection")
            processes.start(refusal.name, refusal.command(film))
            if not server.says(refusal.server_says, said + 1, REFUSAL_LIMIT_S):
                wrong.append(f"{refusal.name}: the server does not say \"{refusal.server_says}\"")
            elif not server.says("Dropping connection", dropped + 1, 5):
                wrong.append(f"{refusal.name}: the server does not drop the connection")
            else:
                refused.append(refusal.name)
            processes.end(refusal.name, signal.SIGKILL, 5)
            # It may have left a connection, which must not be counted for the next refusal.
            server.says("Dropping connection", server.count("Accepted connection"), 5)
        problem = server.stop()
        if problem:
            wrong.append(problem)
    return refused, wrong


def write_film(path, seconds):
    """Makes a film with B-frames, a key frame each second, and a tone."""
    recordings.run_tool(
        ["ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "lavfi", "-i", f"testsrc2=size=320x240:rate={FRAMES_PER_S}",
         "-f", "lavfi", "-i", "sine=frequency=440:beep_factor=4:sample_rate=44100", "-t", str(seconds),
         "-c:v", "libx264", "-preset", "ultrafast", "-bf", "2", "-g", str(FRAMES_PER_KEY_FRAME), "-pix_fmt", "yuv420p",
         "-b:v", "400k", "-c:a", "aac", "-b:a", "96k", "-flags", "+global_header", "-f", "flv", path])


def run_matrix(directory, program, publishers, players, refusals, seconds):
    """Returns outcomes, refused names, and all problems."""
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
