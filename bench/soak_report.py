#!/usr/bin/python3
"""Judges what soak_load has written: prints a table of figures and limits, and draws soak.png.

usage: soak_report.py DIR [--memory-rise KIB] [--late-share SHARE] [--short]

DIR holds samples.csv, totals.json and server.log, and around.csv and around.json if watchdog, serve, Prometheus and a
browser ran beside the load. The table is also written to DIR/report.txt. Exit status 0 only when
every limit holds, 1 when one does not, 2 when DIR cannot be read.
"""
import argparse
import csv
import dataclasses
import json
import pathlib
import re
import statistics
import sys

# Memory that may still be in use after all clients have left, compared with before they joined.
MEMORY_LEFT_KIB = 2048
# The second half of a shorter run is too short to show a slope.
SLOPE_MIN_SECONDS = 600
SANITIZER_SIGNS = re.compile(r"ERROR: (Address|Leak|UndefinedBehavior)Sanitizer|(WARNING|FATAL): ThreadSanitizer"
                             r"|: runtime error: |Assertion")
SHOWN_REPORTS = 10
PAGE_GROWTH = 1.2
PAGE_SLACK_KIB = 500
# Each client must have done its part, or the run proves nothing. A short run has no time for the others.
ALWAYS_SEEN = ["joins", "leaves", "stalls", "garbage clients", "lists", "drops by id", "takeovers"]
SEEN_IN_A_LONG_RUN = ["drops by stream", "stalls with full sockets"]


@dataclasses.dataclass
class Row:
    """One line of the table. holds is None if the limit is not applied; limit then says why."""
    figure: str
    value: str
    limit: str
    holds: bool | None


def slope_per_minute(samples, value):
    """Returns the slope by least squares over the second half of the samples."""
    half = samples[-1]["seconds"] / 2
    points = [(s["seconds"] / 60, s[value]) for s in samples if s["seconds"] >= half]
    return statistics.linear_regression(*zip(*points)) if len(points) > 1 else None


def judge_memory(samples, limit, column="rss_kib", figure="memory slope"):
    """A heap keeps a bounded amount after its peak, however long the run; a leak is not bounded. So the limit applies
    to the whole second half, and the longer the run, the smaller the permitted slope."""
    line = slope_per_minute(samples, column)
    value = f"{line.slope:+.1f} KiB/min" if line else "none"
    if limit is None:
        return Row(figure, value, "not applied", None)
    if samples[-1]["seconds"] < SLOPE_MIN_SECONDS:
        return Row(figure, value, f"not applied below {SLOPE_MIN_SECONDS} s", None)
    limit_per_minute = limit / (samples[-1]["seconds"] / 60 / 2)
    return Row(figure, value, f"at most {limit_per_minute:.1f} KiB/min", line.slope <= limit_per_minute)


def judge_memory_left(totals, applies):
    """Nearly all memory must be returned, whatever the load was."""
    rise = totals["end"]["rss_kib"] - totals["start"]["rss_kib"]
    value = f"{rise:+d} KiB"
    if not applies:
        return Row("memory left", value, "not applied", None)
    if not totals["end_at_rest"]:
        return Row("memory left", value, "not applied to a run so short", None)
    return Row("memory left", value, f"at most +{MEMORY_LEFT_KIB} KiB", rise <= MEMORY_LEFT_KIB)


def judge_late(totals, share):
    frames = max(totals["frames"], 1)
    return Row(f"later than {totals['late_limit_ms']} ms", f"{totals['late']} frames",
               f"at most {share:g} of all", totals["late"] <= share * frames)


def judge_idle(counts, short, ended_early):
    wanted = ALWAYS_SEEN + ([] if short else SEEN_IN_A_LONG_RUN)
    idle = [who for who in wanted if counts.get(who, 0) == 0]
    value = ", ".join(idle) or "none"
    if ended_early:
        return Row("actors that did nothing", value, "not applied: ended early", None)
    return Row("actors that did nothing", value, "none", not idle)


def judge_flat(samples, who, what):
    """A leaked descriptor or thread raises the median of the second half."""
    half = len(samples) // 2
    first, second = (statistics.median(s[f"{who}_{what}"] for s in part) for part in (samples[:half], samples[half:]))
    return Row(f"{who}: {what}, median of each half", f"{first:.0f}, {second:.0f}", "no more in the second",
               second <= first)


def judge_page(page):
    """The number of rows follows that of connections; further growth is a leak."""
    first, last = page[1 if len(page) > 2 else 0], page[-1]
    holds = (last["elements"] <= first["elements"] * PAGE_GROWTH and
             last["heap_kib"] <= first["heap_kib"] * PAGE_GROWTH + PAGE_SLACK_KIB)
    return Row("the page in the browser", f"{first['elements']} to {last['elements']} elements, {first['heap_kib']} to "
               f"{last['heap_kib']} KiB", f"at most {PAGE_GROWTH} times", holds)


def judge_around(samples, around, memory_rise, ended_early):
    """Returns the rows about watchdog, serve, Prometheus and browser."""
    innocent = [event for event in around["events"] if event["address"] not in around["offenders"]]
    tried, dropped = len(around["offenders"]), len(around["offenders_dropped"])
    rows = [
        Row("watchdog: others dropped", str(len(innocent)), "0", not innocent),
        Row("watchdog: dropped of those it must", f"{dropped} of {tried}", "all, and at least one",
            tried == dropped and (tried > 0 or ended_early)),
        Row("watchdog: other lines, problems", str(len(around["watchdog_said"]) + (around["problem"] is not None)), "0",
            not around["watchdog_said"] and around["problem"] is None),
        Row("Prometheus: scrapes that failed", f"{around['scrapes_failed']:.0f} of {around['scrapes']:.0f}", "0",
            around["scrapes_failed"] == 0 and around["scrapes"] > 0),
        Row("serve: failed polls", f"{around['polls_failed']:.0f}", "0", around["polls_failed"] == 0),
        Row("the browser's complaints", str(len(around["complaints"])), "0", not around["complaints"]),
        judge_page(around["page"]),
    ]
    for who in ("watchdog", "serve"):
        rss = [s[f"{who}_rss_kib"] for s in samples]
        rows += [judge_memory(samples, memory_rise, f"{who}_rss_kib", f"{who}: memory slope"),
                 Row(f"{who}: memory, CPU", f"{min(rss) / 1024:.1f} to {max(rss) / 1024:.1f} MiB, "
                     f"{statistics.mean(s[f'{who}_cpu_percent'] for s in samples):.2f} % of one core", "", None),
                 judge_flat(samples, who, "descriptors"), judge_flat(samples, who, "threads")]
    return rows


def find_reports(lines):
    """Returns the sanitizer and assertion lines of a log, which may be larger than memory."""
    return [line.rstrip("\n") for line in lines if SANITIZER_SIGNS.search(line)]


def judge(samples, totals, reports, options):
    """Returns all rows of the table; reports are the server's lines from a sanitizer or an assertion."""
    def zero(figure, value):
        return Row(figure, str(value), "0", value == 0)

    def no_more_than_at_start(what):
        start, end = totals["start"][what], totals["end"][what]
        return Row(f"{what}, start and end", f"{start}, {end}", "no more at the end", end <= start)

    def information(figure, value):
        return Row(figure, value, "", None)

    if "stop_ms" not in totals or not samples:
        return [Row("the run", "did not come to its end", "must", False), zero("failures", totals["failure_count"]),
                zero("sanitizer reports, assertions", len(reports))]
    counts = totals["counts"]
    frames = totals["frames"]
    worst_oversleep = max(s["oversleep_ms"] for s in samples)
    cpu = [s["server_cpu_percent"] for s in samples]
    return [
        information("time", f"{totals['seconds']:.0f} s" + (", ended early" if totals["ended_early"] else "")),
        information("load", "{publishers} publishers, {players} players, {kbit} kbit/s each".format(**totals["setup"])),
        Row("frames received", f"{frames}", "more than 0", frames > 0),
        zero("frames lost", totals["lost"] + totals["missing"]),
        zero("frames damaged", totals["damaged"]),
        information("late by", f"{totals['median_ms']:.0f} ms median, {totals['p99_ms']:.0f} ms 99 %, "
                               f"{totals['most_ms']:.0f} ms at most"),
        judge_late(totals, options.late_share),
        information("the machine's own delay", f"{worst_oversleep:.0f} ms at most"),
        judge_memory(samples, options.memory_rise),
        information("memory", f"{min(s['rss_kib'] for s in samples) / 1024:.1f} to "
                              f"{max(s['rss_kib'] for s in samples) / 1024:.1f} MiB under load, "
                              f"{totals['end']['rss_kib'] / 1024:.1f} MiB when all had left"),
        judge_memory_left(totals, options.memory_rise is not None),
        no_more_than_at_start("descriptors"),
        no_more_than_at_start("threads"),
        information("server CPU", f"{statistics.mean(cpu):.1f} % of one core, {max(cpu):.0f} % in the worst second"),
        information("stopped within", f"{totals['stop_ms']} ms"),
        zero("failures", totals["failure_count"]),
        zero("sanitizer reports, assertions", len(reports)),
        *[information(who, str(count)) for who, count in sorted(counts.items())],
        judge_idle(counts, options.short, totals["ended_early"]),
    ]


def table(rows):
    marks = {True: "ok", False: "FAILED", None: ""}
    cells = [(row.figure, row.value, row.limit, marks[row.holds]) for row in rows]
    widths = [max(len(cell[i]) for cell in cells) for i in range(3)]
    return "\n".join("  ".join((*(text.ljust(width) for text, width in zip(cell, widths)), cell[3])).rstrip()
                     for cell in cells)


def read_samples(path):
    with open(path, encoding="utf-8", newline="") as file:
        return [{name: float(value) for name, value in line.items()} for line in csv.DictReader(file)]


def draw_around(samples, memory, descriptors):
    minutes = [s["seconds"] / 60 for s in samples]
    for who, colour in (("watchdog", "tab:orange"), ("serve", "tab:green")):
        memory.plot(minutes, [s[f"{who}_rss_kib"] / 1024 for s in samples], color=colour, linewidth=0.8, label=who)
        for what, style in (("descriptors", "-"), ("threads", ":")):
            descriptors.plot(minutes, [s[f"{who}_{what}"] for s in samples], style, color=colour, linewidth=0.8,
                             label=f"{who}: {what}")
    memory.set_ylabel("memory, MiB")
    memory.set_ylim(bottom=0)
    descriptors.set_ylim(bottom=0)


def draw(samples, around_samples, passed, path):
    """Plots memory, CPU and lateness over time. Returns False without matplotlib."""
    try:
        import matplotlib
        matplotlib.use("Agg")
        from matplotlib import pyplot
    except ImportError:
        return False
    minutes = [s["seconds"] / 60 for s in samples]

    def series(name, factor=1.0):
        return [s[name] * factor for s in samples]

    heights = [3, 2, 3, 1] + ([2, 1] if around_samples else [])
    figure, (memory, cpu, late, people, *around) = pyplot.subplots(
        len(heights), 1, figsize=(11, 1.2 * sum(heights)), sharex=True, gridspec_kw={"height_ratios": heights})
    memory.plot(minutes, series("rss_kib", 1 / 1024), color="tab:blue", linewidth=0.8, label="resident")
    line = slope_per_minute(samples, "rss_kib")
    if line:
        half = [m for m in minutes if m >= minutes[-1] / 2]
        memory.plot(half, [(line.intercept + line.slope * m) / 1024 for m in half], color="tab:red",
                    label=f"second half: {line.slope:+.1f} KiB/min")
    memory.set_ylabel("memory, MiB")
    memory.set_ylim(bottom=0)
    cpu.plot(minutes, series("server_cpu_percent"), color="tab:blue", linewidth=0.8, label="server")
    cpu.plot(minutes, series("load_cpu_percent"), color="tab:gray", linewidth=0.6, label="load generator")
    cpu.set_ylabel("CPU, % of one core")
    cpu.set_ylim(bottom=0)
    for name, label, colour in (("most_ms", "most", "tab:red"), ("p99_ms", "99 %", "tab:orange"),
                                ("median_ms", "median", "tab:green"),
                                ("oversleep_ms", "the machine's own delay", "lightgray")):
        late.plot(minutes, series(name), color=colour, linewidth=0.8, label=label)
    late.set_yscale("log")
    late.set_ylim(bottom=1)
    late.set_ylabel("lateness, ms")
    people.plot(minutes, series("descriptors"), color="tab:purple", linewidth=0.8, label="descriptors")
    people.plot(minutes, series("threads"), color="tab:brown", linewidth=0.8, label="threads")
    people.set_ylim(bottom=0)
    if around_samples:
        draw_around(around_samples, *around)
    all_axes = (memory, cpu, late, people, *around)
    all_axes[-1].set_xlabel("minutes")
    for axes in all_axes:
        axes.legend(loc="lower right", fontsize="small", ncols=4)
        axes.grid(alpha=0.3)
    lost, damaged = (int(sum(series(name))) for name in ("lost", "damaged"))
    figure.suptitle(f"soak: {'every limit holds' if passed else 'FAILED'}; {int(sum(series('frames')))} frames, "
                    f"{lost} lost, {damaged} damaged")
    figure.tight_layout(rect=(0, 0, 1, 0.99))
    figure.savefig(path, dpi=110)
    return True


def parse_arguments(arguments):
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("dir", type=pathlib.Path)
    parser.add_argument("--memory-rise", type=lambda text: None if text == "none" else float(text), default=1024.0,
                        help="KiB by which memory may rise in the second half, or none (default: %(default)s)")
    parser.add_argument("--late-share", type=float, default=0.0001,
                        help="share of the frames that may be late (default: %(default)s)")
    parser.add_argument("--short", action="store_true", help="a run too short for some clients to do their part")
    return parser.parse_args(arguments)


def main(arguments):
    options = parse_arguments(arguments)
    try:
        samples = read_samples(options.dir / "samples.csv")
        totals = json.loads((options.dir / "totals.json").read_text(encoding="utf-8"))
        with open(options.dir / "server.log", encoding="utf-8", errors="replace") as log:
            reports = find_reports(log)
        is_around = (options.dir / "around.json").exists()
        around_samples = read_samples(options.dir / "around.csv") if is_around else []
        around = json.loads((options.dir / "around.json").read_text(encoding="utf-8")) if is_around else None
    except (OSError, ValueError) as error:
        print(f"soak_report.py: there is nothing to judge: {error}", file=sys.stderr)
        return 2
    rows = judge(samples, totals, reports, options)
    if around_samples:
        rows += judge_around(around_samples, around, options.memory_rise, totals["ended_early"])
    passed = all(row.holds is not False for row in rows)
    text = table(rows)
    (options.dir / "report.txt").write_text(text + "\n", encoding="utf-8")
    print(text)
    for line in reports[:SHOWN_REPORTS]:
        print(f"the server: {line}")
    for failure in totals["failures"]:
        print(f"failure: {failure}")
    if samples and draw(samples, around_samples, passed, options.dir / "soak.png"):
        print(f"picture: {options.dir / 'soak.png'}")
    else:
        print("no picture; scripts/install_packages soak installs what draws it")
    return 0 if passed else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
