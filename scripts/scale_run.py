#!/usr/bin/python3
"""Runs the test that scripts/scale-test describes, in its own namespaces."""

import argparse
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True
import scale_doors  # noqa: E402  pylint: disable=wrong-import-position
from processes import RunError, Stopped, raise_stopped_on_signals, say, set_up_namespaces, wait_until  # noqa: E402
from scale_lab import EXAMPLES, Lab, Load  # noqa: E402

BALANCER, ORIGIN = "192.0.2.20", "192.0.2.30"
BACK_LIMIT_S = 5
# A forwarder exits if nothing arrives for 15 s, and is restarted after 2 s.
CUT_LIMIT_S = 28
# For an edge that was not busy when its forwarder started.
EDGE_LATE_LIMIT_MS = 1200


class Run:
    """The machines, the load and the figures."""

    def __init__(self, lab, edges, players, steady_s, skip):
        self.lab, self.players, self.steady_s, self.skip = lab, players, steady_s, skip
        self.figures, self.wrong = {}, []
        self.film = make_film(lab.processes.directory)
        self.origins = [lab.machine("origin1", "192.0.2.31"), lab.machine("origin2", "192.0.2.32")]
        self.balancers = [lab.machine("haproxy1", "192.0.2.21"), lab.machine("haproxy2", "192.0.2.22")]
        self.edges = [lab.machine(f"edge{i}", f"192.0.2.4{i}") for i in range(1, edges + 1)]
        self.spare = lab.machine("edge5", "192.0.2.45")
        self.load = None

    def require(self, holds, text):
        if not holds:
            self.wrong.append(text)
            print(f"    WRONG: {text}", flush=True)

    def note(self, name, **figures):
        self.figures.setdefault(name, {}).update(figures)
        shown = ", ".join(f"{key} {value:.2f}" if isinstance(value, float) else f"{key} {value}"
                          for key, value in figures.items())
        print(f"    {name}: {shown}", flush=True)

    # ---- start

    def start_all(self):
        for origin in self.origins:
            origin.start_server()
        for balancer in self.balancers:
            scale_doors.give_certificates(balancer)
            balancer.start_haproxy()
        # The first machines start first: with nopreempt, the one that starts first keeps the address.
        self.origins[0].start_keepalived("keepalived-origin.conf", 100)
        self.balancers[0].start_keepalived("keepalived-haproxy.conf", 100)
        self.wait("the first machines have the shared addresses", lambda: self.origins[0].has_address(ORIGIN)
                  and self.balancers[0].has_address(BALANCER), 20)
        self.origins[1].start_keepalived("keepalived-origin.conf", 90)
        self.balancers[1].start_keepalived("keepalived-haproxy.conf", 90)
        self.load = Load(self.lab, self.film)
        self.load.do("publish", "encoder", "cam1", ORIGIN, 1935, self.skip)
        self.wait("the encoder publishes", lambda: self.load.since(0, "encoder", "publishes", exact=True), 10)
        for edge in self.edges:
            edge.start_server()
            edge.start_forward(ORIGIN)
            edge.start_agent()
        self.wait("all edges are up", lambda: self.states_of(self.edges) == {"UP"}, 30)
        begin = time.monotonic()
        self.load.do("play", "crowd", "cam1", BALANCER, 1935, self.players, "198.51.100.1")
        self.load.wait_until_playing("crowd", self.players, 60)
        self.note("start", players=self.players, all_play_after_s=time.monotonic() - begin)

    def wait(self, what, condition, limit_s):
        begin = time.monotonic()
        if not wait_until(condition, limit_s):
            raise RunError(f"not within {limit_s} s: {what}")
        return time.monotonic() - begin

    def balancer(self):
        return next(machine for machine in self.balancers if machine.runs("haproxy") and machine.has_address(BALANCER))

    def states_of(self, machines):
        states = self.balancer().states()
        return {states[machine.name][0].split()[0] for machine in machines}

    # ---- a steady load

    def steady(self):
        say(f"{self.players} players on {len(self.edges)} edges, and lateness by level")
        self.load.do("play", "level0", "cam1", self.origins[0].address, 1935, 2, "-")
        self.load.do("play", "level1", "cam1", self.edges[0].address, 1935, 2, "-")
        for edge in self.edges:
            self.load.do("play", f"at-{edge.name}", "cam1", edge.address, 1935, 1, "-")
        # Another level below the first edge.
        self.spare.start_server()
        self.spare.start_forward(self.edges[0].address)
        self.load.do("play", "level2", "cam1", self.spare.address, 1935, 2, "-")
        for level in ("level0", "level1", "level2"):
            self.load.wait_until_playing(level, 2, 60)
        time.sleep(2)
        sessions = sorted(count for name, (_, count) in self.balancer().states().items()
                          if name in {edge.name for edge in self.edges})
        programs = [(edge, what) for edge in self.edges for what in ("server", "forward")]
        programs += [(self.balancer(), "haproxy"), (self.origins[0], "server")]
        at_edges = [f"at-{edge.name}" for edge in self.edges]
        for group in ("crowd", "level0", "level1", "level2", *at_edges):
            self.load.tally(group)
        before = {program: program[0].cpu_s(program[1]) for program in programs}
        senders = {"edge": self.edges[-1], "haproxy": self.balancer(), "origin": self.origins[0]}
        sent = {name: machine.sent_bytes() for name, machine in senders.items()}
        begin = time.monotonic()
        time.sleep(self.steady_s)
        seconds = time.monotonic() - begin
        spent = {program: 100 * (program[0].cpu_s(program[1]) - before[program]) / seconds for program in programs}
        self.note("network_mbit", **{name: (machine.sent_bytes() - sent[name]) * 8e-6 / seconds
                                     for name, machine in senders.items()})
        crowd = self.load.tally("crowd")
        edges = len(self.edges)
        self.note("steady", players=crowd["playing"], sessions_of_edges=sessions,
                  frames=crowd["frames"], missing=crowd["missing"], strange=crowd["strange"],
                  crowd_late_ms=crowd["late_ms"])
        self.note("cpu_percent_of_a_core", edge_server=sum(v for (_, what), v in spent.items() if what == "server") / edges,
                  edge_forward=sum(v for (_, what), v in spent.items() if what == "forward") / edges,
                  haproxy=spent[(self.balancer(), "haproxy")], origin=spent[(self.origins[0], "server")])
        for level in ("level0", "level1", "level2"):
            tally = self.load.tally(level)
            self.note(level, late_ms=tally["late_ms"], missing=tally["missing"])
            self.require(tally["missing"] == 0, f"{level} misses {tally['missing']} frames")
        medians = sorted(self.load.tally(group)["late_ms"]["p50"] for group in at_edges)
        self.note("edges", median_late_ms=medians)
        self.require(medians[0] <= EDGE_LATE_LIMIT_MS, f"even the quickest edge is {medians[0]:.0f} ms late")
        self.require(crowd["playing"] == self.players, f"{crowd['playing']} of {self.players} play")
        self.require(crowd["missing"] == 0 and crowd["strange"] == 0, "frames are missing or changed")
        for group in ("level0", "level1", "level2", *at_edges):
            self.load.leave(group)
        self.spare.kill("forward")
        self.lab.processes.end("edge5.server", signal.SIGTERM, 10)

    # ---- what dies

    def back_after(self, name, act, seen, quiet=2.0, limit_s=90):
        """Does something that costs players their connection. Waits until it is seen, and until all of them play."""
        begin = time.monotonic()
        act()
        seen_s = self.wait(f"{name} is seen", seen, 30) if seen else None
        time.sleep(quiet)
        deadline = time.monotonic() + limit_s
        while time.monotonic() < deadline:
            lost = {event["who"]: event["at"] for event in self.load.since(begin, "crowd", "lost")}
            back = {event["who"]: event["at"] for event in self.load.since(begin, "crowd", "plays")}
            if all(who in back and back[who] > at for who, at in lost.items()) and \
                    self.load.playing("crowd") == self.players:
                break
            time.sleep(0.2)
        self.require(self.load.playing("crowd") == self.players, f"{name}: not all players are back")
        gaps = sorted(event["silence_s"] for event in self.load.since(begin, "crowd", "plays"))
        failed = len(self.load.since(begin, "crowd", "failed"))
        self.note(name, seen_after_s=seen_s, players_that_lost_it=len(lost),
                  last_lost_after_s=max(lost.values(), default=begin) - begin,
                  last_back_after_s=max(back.values(), default=begin) - begin,
                  without_media_median_s=gaps[len(gaps) // 2] if gaps else 0.0,
                  without_media_most_s=gaps[-1] if gaps else 0.0,
                  attempts_that_failed=failed)
        self.load.tally("crowd")
        return self.figures[name]

    def edge_dies(self):
        say("An edge's server is killed")
        edge = self.edges[0]
        figure = self.back_after("edge_killed", lambda: edge.kill("server"),
                                 lambda: self.states_of([edge]) == {"DOWN"})
        late = figure["last_back_after_s"] - figure["seen_after_s"]
        self.require(figure["players_that_lost_it"] > 0, "no player has noticed")
        self.require(late <= BACK_LIMIT_S, f"players are back only {late:.1f} s after the death was seen")
        edge.start_server()
        self.wait("the edge is up again", lambda: self.states_of([edge]) == {"UP"}, 30)

    def edge_is_cut(self):
        say("An edge's machine is cut off")
        edge = self.edges[1]
        figure = self.back_after("edge_cut", edge.cut, lambda: self.states_of([edge]) == {"DOWN"})
        late = figure["last_back_after_s"] - figure["seen_after_s"]
        self.require(late <= BACK_LIMIT_S, f"players are back only {late:.1f} s after the cut was seen")
        edge.mend()
        self.wait("the edge is up again", lambda: self.states_of([edge]) == {"UP"}, 30)

    def origin_dies(self):
        say("The origin's server is killed")
        origin, standby = self.origins
        self.back_after("origin_killed", lambda: origin.kill("server"), lambda: standby.has_address(ORIGIN), quiet=8)
        origin.start_server()

    def origin_is_cut(self):
        say("The origin's machine is cut off")
        origin, standby = reversed(self.origins)
        figure = self.back_after("origin_cut", origin.cut, lambda: standby.has_address(ORIGIN), quiet=22)
        self.require(figure["last_back_after_s"] <= CUT_LIMIT_S, "players wait too long for another origin")
        origin.mend()

    def balancer_dies(self):
        say("The active HAProxy is killed")
        active, standby = self.balancers
        figure = self.back_after("haproxy_killed", lambda: active.kill("haproxy"), lambda: standby.has_address(BALANCER))
        self.require(figure["players_that_lost_it"] == self.players, "not all players had to connect again")
        active.start_haproxy()

    # ---- an upgrade

    def upgrade(self):
        say("An upgrade by draining")
        self.load.leave("crowd")
        old, new = self.edges[0], self.spare
        balancer = self.balancer()
        for edge in self.edges[1:]:
            self.mark_drained(edge, True)
        if len(self.edges) > 1:
            self.wait("the others take no players", lambda: self.states_of(self.edges[1:]) == {"DRAIN"}, 10)
        self.load.do("play", "old", "cam1", BALANCER, 1935, 20, "198.51.100.1")
        self.load.do("play", "stays", "cam1", BALANCER, 1935, 5, "198.51.100.11")
        self.load.wait_until_playing("old", 20, 30)
        self.load.wait_until_playing("stays", 5, 30)
        new.start_server()
        new.start_forward(ORIGIN)
        new.start_agent()
        self.wait("the new server is up", lambda: self.states_of([new]) == {"UP"}, 30)
        begin, age_limit_s = time.monotonic(), 20 if self.players > 100 else 6
        drain = old.start("drain", os.path.join(EXAMPLES, "v9-rtmp-drain"), str(age_limit_s))
        self.wait("HAProxy drains the old server", lambda: self.states_of([old]) == {"DRAIN"}, 10)
        self.load.do("play", "fresh", "cam1", BALANCER, 1935, 20, "198.51.100.21")
        self.load.wait_until_playing("fresh", 20, 30)
        states = balancer.states()
        lost = len(self.load.since(begin, "old", "lost")) + len(self.load.since(begin, "stays", "lost"))
        self.note("drain", sessions_of_old=states[old.name][1], sessions_of_new=states[new.name][1],
                  established_lost=lost)
        self.require(states[old.name][1] == 25 and states[new.name][1] == 20 and lost == 0,
                     "new players did not go to the new server, or established ones were lost")
        self.load.leave("old")
        drain.wait(age_limit_s + 30)
        drained_s = time.monotonic() - begin
        self.require(len(self.load.since(begin, "stays", "lost")) == 0, "the rest was lost before the age limit")
        stopped = time.monotonic()
        self.lab.processes.end(f"{old.name}.server", signal.SIGTERM, 10)
        self.wait("the rest plays from the new server", lambda: len(self.load.since(stopped, "stays", "plays")) == 5, 20)
        self.note("drain", age_limit_s=age_limit_s, ended_after_s=drained_s,
                  rest_back_after_s=max(event["at"] for event in self.load.since(stopped, "stays", "plays")) - stopped)
        self.drain_until_empty(new, old)
        for group in ("stays", "fresh"):
            self.load.leave(group)
        for edge in self.edges[1:]:
            self.mark_drained(edge, False)
        self.wait("the edges are up again", lambda: self.states_of(self.edges) == {"UP"}, 30)

    @staticmethod
    def mark_drained(machine, is_drained):
        """Sets or removes the mark that v9-rtmp-drain uses, without waiting as that script does."""
        mark = machine.path("/run/v9-rtmp-agent/drain")
        if is_drained:
            with open(mark, "w", encoding="ascii"):
                pass
        else:
            os.remove(mark)

    def drain_until_empty(self, draining, other):
        """Drains in the other direction. This time the players leave by themselves long before the limit."""
        other.do(os.path.join(EXAMPLES, "v9-rtmp-drain"), "--undo")
        other.start_server()
        self.wait("the other server is up", lambda: self.states_of([other]) == {"UP"}, 30)
        begin = time.monotonic()
        drain = draining.start("drain", os.path.join(EXAMPLES, "v9-rtmp-drain"), "600")
        self.wait("HAProxy drains it", lambda: self.states_of([draining]) == {"DRAIN"}, 10)
        for group in ("stays", "fresh"):
            self.load.leave(group)
        drain.wait(30)
        self.note("drain", empty_after_s=time.monotonic() - begin)
        draining.kill("forward")
        self.lab.processes.end(f"{draining.name}.server", signal.SIGTERM, 10)

    # ---- a rival publisher

    def rival(self):
        say("A rival publisher")
        origin = next(machine for machine in self.origins if machine.has_address(ORIGIN))
        first, second = (Load(self.lab, self.film, name) for name in ("first", "second"))
        first.do("publish", "first", "cam9", ORIGIN, 1935, 0)
        self.wait("the first publishes", lambda: first.since(0, "first", "publishes", exact=True), 10)
        self.load.do("play", "viewers", "cam9", ORIGIN, 1935, 10, "-")
        self.load.wait_until_playing("viewers", 10, 20)
        second.do("publish", "second", "cam9", ORIGIN, 1935, 0)
        self.wait("the second publishes", lambda: second.since(0, "second", "publishes", exact=True), 10)
        time.sleep(1)
        self.require(self.load.playing("viewers") == 10, "the rival disturbs the players")
        begin = time.monotonic()
        first.process.send_signal(signal.SIGSTOP)
        self.wait("the rival takes over", lambda: len({e["who"] for e in self.load.since(begin, "viewers", "plays")}) == 10, 20)
        taken_s = max(event["at"] for event in self.load.since(begin, "viewers", "plays")) - begin
        first.process.kill()
        third = Load(self.lab, self.film, "third")
        third.do("publish", "third", "cam9", ORIGIN, 1935, 0)
        self.wait("a third publishes", lambda: third.since(0, "third", "publishes", exact=True), 10)
        time.sleep(1)
        begin = time.monotonic()
        second.process.kill()
        self.wait("the rival takes over", lambda: len({e["who"] for e in self.load.since(begin, "viewers", "plays")}) == 10, 20)
        self.note("rival", back_after_silence_s=taken_s, back_after_close_s=max(
            event["at"] for event in self.load.since(begin, "viewers", "plays")) - begin, on=origin.name)
        self.load.leave("viewers")
        third.end()


def make_film(directory):
    """A minute of 500 kbit/s in all, 25 pictures a second, a key frame each second."""
    path = os.path.join(directory, "film.flv")
    subprocess.run(["ffmpeg", "-nostdin", "-loglevel", "error", "-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25", "-f",
                    "lavfi", "-i", "sine=frequency=440:beep_factor=4", "-t", "60", "-c:v", "libx264", "-preset",
                    "ultrafast", "-g", "25", "-bf", "0", "-pix_fmt", "yuv420p", "-b:v", "436k", "-minrate", "436k", "-maxrate",
                    "436k", "-bufsize", "436k", "-x264-params", "nal-hrd=cbr", "-c:a", "aac", "-b:a", "64k", "-ac", "2",
                    "-f", "flv", path], check=True)
    return path


STEPS = ("steady", "edge_dies", "edge_is_cut", "origin_dies", "origin_is_cut", "balancer_dies", "upgrade", "rival")
DOORS = ("tls_and_ipv6", "limits", "addresses", "health", "browser")
SHORT_STEPS = ("steady", "edge_dies", "origin_dies", "upgrade", "rival")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--programs", required=True)
    parser.add_argument("--out", required=True)
    parser.add_argument("--short", action="store_true")
    parser.add_argument("--skip-frame", type=int, default=0)
    parser.add_argument("--only", nargs="+", default=[])
    arguments = parser.parse_args()
    set_up_namespaces(own_network=True)
    raise_stopped_on_signals()
    directory = tempfile.mkdtemp(prefix="v9_scale_")
    good = False
    begin = time.monotonic()
    lab = Lab(directory, os.path.abspath(arguments.programs))
    try:
        with lab.processes:
            run = Run(lab, *((2, 12, 3) if arguments.short else (4, 360, 30)), arguments.skip_frame)
            say("Machines start")
            run.start_all()
            wanted = arguments.only or (SHORT_STEPS + DOORS if arguments.short else STEPS + DOORS)
            for step in wanted:
                if step in DOORS:
                    getattr(scale_doors, step)(run)
                else:
                    getattr(run, step)()
            run.load.end()
            run.figures["setup"] = {"edges": len(run.edges), "players": run.players, "short": arguments.short,
                                    "seconds": time.monotonic() - begin, "wrong": run.wrong}
            with open(os.path.join(arguments.out, "scale.json"), "w", encoding="utf-8") as file:
                json.dump(run.figures, file, indent=1)
            good = not run.wrong
            say(f"{len(wanted)} steps in {time.monotonic() - begin:.0f} s, {len(run.wrong)} wrong")
    except RunError as error:
        print(f"scale-test: this failed: {error}", file=sys.stderr)
    finally:
        if not good:
            shutil.rmtree(os.path.join(arguments.out, "logs"), ignore_errors=True)
            shutil.copytree(directory, os.path.join(arguments.out, "logs"), ignore=shutil.ignore_patterns("film.flv"),
                            ignore_dangling_symlinks=True)
            say(f"Logs: {arguments.out}/logs")
        shutil.rmtree(directory, ignore_errors=True)
    return 0 if good else 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Stopped as stopped:
        sys.exit(stopped.status)
