#!/usr/bin/python3
"""Runs the cases of bench_cases.py with relay_load and writes results.json and the page. scripts/bench --help says how."""
import argparse
import datetime
import json
import os
import pathlib
import platform
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True
import bench_cases  # noqa: E402
import bench_page  # noqa: E402

CASE_TIMEOUT_S = 240
SHOWN_STDERR = 500
# The time of a case in addition to the measurement: clients join, warm up and leave.
SECONDS_AROUND = 2.5
SECONDS_AFTER_STUCK = 12
WARM_UP = "0.5"
SMOKE_SECONDS = 0.5
# Distributions of lateness are plotted only for this case; in others they would only enlarge the file.
DRAWN_CASE = "players_120x4"


def parse_arguments(arguments):
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--programs", type=pathlib.Path, required=True)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=5)
    parser.add_argument("--only", action="append", default=[])
    parser.add_argument("--against", type=pathlib.Path)
    parser.add_argument("--out", type=pathlib.Path, default=pathlib.Path(__file__).resolve().parent / "results")
    parser.add_argument("--smoke", action="store_true")
    options = parser.parse_args(arguments)
    if options.rounds < 1 or options.seconds <= 0:
        parser.error("--rounds and --seconds take numbers above 0")
    if options.against and not os.access(options.against, os.X_OK):
        parser.error(f"there is no server {options.against}")
    if options.smoke:
        options.rounds, options.seconds = 1, SMOKE_SECONDS
    return options


def git(*arguments):
    run = subprocess.run(["git", *arguments], capture_output=True, text=True, cwd=pathlib.Path(__file__).parent, check=False)
    return run.stdout.strip() if run.returncode == 0 else "unknown"


def machine():
    info = pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8")
    names = [line.split(":", 1)[1].strip() for line in info.splitlines() if line.startswith("model name")]
    memory_kib = int(pathlib.Path("/proc/meminfo").read_text(encoding="utf-8").split()[1])
    return {"processor": names[0] if names else platform.machine(), "cores": os.cpu_count(),
            "memory_gib": round(memory_kib / 2**20), "system": f"{platform.system()} {platform.release()}"}


def commit():
    changed = git("status", "--porcelain", "--untracked-files=no", "--", ":!bench/results")
    return git("rev-parse", "--short", "HEAD") + (", with uncommitted changes" if changed else "")


class Run:
    """All measurements of one run of scripts/bench."""

    def __init__(self, options):
        self.options = options
        self.stand_ins = {}
        self.builds = {"this": {"server": options.programs / "v9_rtmp_server", "reports": {}}}
        if options.against:
            self.builds["against"] = {"server": options.against, "reports": {}}
        self.steps = self.plan()
        self.begin = time.monotonic()
        self.spent = 0.0

    def plan(self):
        """Returns the round, case and build of each measurement, in order."""
        def wanted(case):
            return not self.options.only or any(case.name.startswith(name) for name in self.options.only)

        def with_builds(number, case):
            if case.stands_in:
                return [(number, case, None)]
            # The order alternates: the first build of this round is the last of the next.
            names = list(self.builds)[::1 if number % 2 else -1]
            return [(number, case, name) for name in names]

        steps = [step for number in range(1, self.options.rounds + 1) for case in bench_cases.EACH_ROUND if wanted(case)
                 for step in with_builds(number, case)]
        if not self.options.against:
            once = bench_cases.SMOKE_ONCE if self.options.smoke else bench_cases.ONCE
            steps += [(0, case, "this" if not case.stands_in else None) for case in once if wanted(case)]
        return steps

    def seconds(self, case):
        return self.options.seconds if case.seconds is None or self.options.smoke else case.seconds

    def expected(self, case):
        return self.seconds(case) + SECONDS_AROUND + (SECONDS_AFTER_STUCK if "--stuck" in case.arguments else 0)

    def arguments(self, case):
        arguments = list(case.arguments)
        if self.options.smoke:
            for name, few in bench_cases.SMOKE_OPTIONS.items():
                if name in arguments:
                    place = arguments.index(name) + 1
                    arguments[place] = str(min(int(arguments[place]), few))
                elif name == "--players":
                    arguments += [name, str(few)]
        return ["--mode", case.mode, "--seconds", str(self.seconds(case)), "--warm-up", WARM_UP, *arguments]

    def measure(self, case, build):
        environment = dict(os.environ)
        if build:
            environment["V9_SERVER_PATH"] = str(self.builds[build]["server"])
        with tempfile.NamedTemporaryFile(suffix=".json") as file:
            run = subprocess.run([self.options.programs / "relay_load", *self.arguments(case), "--json", file.name],
                                 env=environment, capture_output=True, text=True, timeout=CASE_TIMEOUT_S, check=False)
            text = pathlib.Path(file.name).read_text(encoding="utf-8")
        if not text:
            raise RuntimeError(f"{case.name}: relay_load ended with status {run.returncode}:\n"
                               + run.stderr[-SHOWN_STDERR:].strip())
        report = json.loads(text)
        if case.name != DRAWN_CASE:
            for figures in ("lateness", "first_picture"):
                report.get(figures, {}).pop("histogram", None)
        return report

    def run(self):
        everything = sum(self.expected(case) for _, case, _ in self.steps)
        done = 0.0
        for number, case, build in self.steps:
            report = self.measure(case, build)
            reports = self.builds[build]["reports"] if build else self.stand_ins
            reports.setdefault(case.name, []).append(report)
            done += self.expected(case)
            self.progress(number, case, build, report, done / everything)

    def progress(self, number, case, build, report, share):
        self.spent = time.monotonic() - self.begin
        where = f"round {number} of {self.options.rounds}" if number else "once"
        who = f" ({build})" if build and self.options.against else ""
        cost = f"{report['cpu_s_per_gb']:.3f} s/GB" if "cpu_s_per_gb" in report else \
            f"{report['server']['cpu_percent']:.2f} % of a core"
        time_of_all = f"{self.spent:4.0f} of about {self.spent / share:.0f} s"
        print(f"{100 * share:3.0f} %  {time_of_all}  {where}: {case.name}{who}: {cost}", flush=True)

    def results(self, build="this"):
        return bench_cases.Results({**self.stand_ins, **self.builds[build]["reports"]})

    def document(self):
        return {"date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"),
                "machine": machine(), "commit": commit(),
                "command": self.command(), "judged": not self.options.smoke,
                "rounds": self.options.rounds, "seconds": self.options.seconds,
                "stand_ins": self.stand_ins,
                "builds": {name: build["reports"] for name, build in self.builds.items()}}

    def command(self):
        words = ["scripts/bench", "--rounds", str(self.options.rounds), "--seconds", f"{self.options.seconds:g}"]
        for name in self.options.only:
            words += ["--only", name]
        if self.options.against:
            words += ["--against", self.options.against.name]
        return " ".join(words + (["--smoke"] if self.options.smoke else []))


def judge(run):
    """Returns whether the run is valid; prints the reasons if it is not."""
    valid = True
    floor = run.results().cost("floor_120x4")
    if floor is not None:
        print(f"floor of 120 players x 4 Mbit/s: {floor:.3f} s of CPU per GB")
        if floor > bench_cases.MOST_FLOOR_S_PER_GB and not run.options.smoke:
            print(f"VOID: more than {bench_cases.MOST_FLOOR_S_PER_GB} s. The machine is too slow or too busy.")
            valid = False
    for build in run.builds:
        for failure in run.results(build).failures():
            print(f"FAILED: {failure}")
            valid = False
    return valid


def main(arguments):
    run = Run(parse_arguments(arguments))
    print(f"{len(run.steps)} measurements", flush=True)
    complete = False
    try:
        run.run()
        complete = True
    except KeyboardInterrupt:
        print("ended early")
    except (RuntimeError, subprocess.TimeoutExpired) as error:
        print(f"scripts/bench: {error}", file=sys.stderr)
    for build in run.builds:
        if run.options.against:
            print(f"\n{build}: {run.builds[build]['server']}")
        print(bench_page.table(bench_cases.figures_of(run.results(build)), judged=not run.options.smoke))
    valid = judge(run)
    bench_page.write(run.document(), run.options.out)
    print(f"page: {run.options.out / 'README.md'}")
    return 0 if valid and complete else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
