#!/usr/bin/python3
"""Writes what scripts/scale-test has measured into docs/scaling.md, extrapolates it to more players, and plots it.

usage: scale_report.py SCALE.JSON [--update-page]
       scale_report.py --check-page

Without --update-page only the plot is drawn, beside SCALE.JSON, and the tables are printed. --check-page exits with 1
if the page differs from bench/results/scale.json.
"""

import json
import math
import pathlib
import shutil
import statistics
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
PAGE = ROOT / "docs/scaling.md"
RESULTS = ROOT / "bench/results"
BEGIN, END = "<!-- measured: begin -->", "<!-- measured: end -->"
# Players or downstream servers per server: of 128 slots, 8 are for the source, checks and operators.
FAN_OUT = 120
STREAM_MBIT = 0.5
# A machine's limit for sending: half of what a port of 10 Gbit/s can send.
MACHINE_MBIT = 5000


def table(rows):
    rows = [rows[0], ["---"] * len(rows[0]), *rows[1:]]
    return "\n".join("| " + " | ".join(str(cell) for cell in row) + " |" for row in rows)


def levels_for(players):
    """Levels of edges below the origin."""
    level = 0
    while FAN_OUT ** (level + 1) < players:
        level += 1
    return level


class Arithmetic:
    """What one level, one player and one Mbit/s cost, derived from a run."""

    def __init__(self, figures):
        self.first_ms = figures["level0"]["late_ms"]["p50"]
        self.level_ms = statistics.median(figures["edges"]["median_late_ms"]) - self.first_ms
        crowd = figures["steady"]
        self.players_per_edge = crowd["players"] / figures["setup"]["edges"]
        self.edge_percent = figures["cpu_percent_of_a_core"]["edge_server"] + figures["cpu_percent_of_a_core"]["edge_forward"]
        # The load of a full edge for each stream rate: from this run, and as measured by scripts/bench.
        bench = json.loads((RESULTS / "results.json").read_text(encoding="utf-8"))["builds"]["this"]["players_120x4"]
        self.full_edge_percent = {
            STREAM_MBIT: self.edge_percent * FAN_OUT / self.players_per_edge,
            4: statistics.median(report["server"]["cpu_percent"] for report in bench)
            + figures["cpu_percent_of_a_core"]["edge_forward"]}
        # Includes headers but not TCP acknowledgements.
        self.player_mbit = figures["network_mbit"]["edge"] / self.players_per_edge
        self.haproxy_percent_per_mbit = figures["cpu_percent_of_a_core"]["haproxy"] / figures["network_mbit"]["haproxy"]

    def row(self, players, stream_mbit):
        levels = levels_for(players)
        counts = [math.ceil(players / FAN_OUT ** (step + 1)) for step in range(levels)]
        servers = 1 + sum(counts)
        mbit = players * self.player_mbit * stream_mbit / STREAM_MBIT
        cores = sum(counts) * self.full_edge_percent[stream_mbit] / 100
        balancers = mbit * self.haproxy_percent_per_mbit / 100
        return [f"{players:,}", f"{stream_mbit:g} Mbit/s", levels, " + ".join(f"{count:,}" for count in reversed([*counts, 1])),
                f"{self.first_ms + levels * self.level_ms:.0f} ms", f"{mbit / 1000:,.1f} Gbit/s", f"{cores:,.1f}",
                f"{balancers:,.1f}", f"{math.ceil(mbit / MACHINE_MBIT):,}"], servers

    def tables(self):
        head = ["players", "stream", "levels of edges", "servers: origin + edges by level", "median lateness", "sent to players",
                "cores for edges", "cores for HAProxy", "machines of 5 Gbit/s for edges"]
        return table([head] + [self.row(players, mbit)[0] for players in (360, 10000, 1000000) for mbit in (STREAM_MBIT, 4)])


def seconds(value):
    return f"{value:.1f} s"


def killed_table(figures):
    rows = [["what was done", "detected after", "players that lost their connection", "all play again after", "without media: median, maximum"]]
    names = {"edge_killed": "an edge's server killed", "edge_cut": "an edge's machine cut off",
             "origin_killed": "the origin's server killed", "origin_cut": "the origin's machine cut off",
             "haproxy_killed": "the active HAProxy killed"}
    for name, text in names.items():
        if name in figures:
            f = figures[name]
            rows.append([text, seconds(f["seen_after_s"]), f["players_that_lost_it"], seconds(f["last_back_after_s"]),
                         f"{seconds(f['without_media_median_s'])}, {seconds(f['without_media_most_s'])}"])
    return table(rows)


def steady_table(figures):
    rows = [["level", "late: median, 99 %, maximum"]]
    names = ["at the origin", "at the first edge", "at an edge of that edge"]
    for level, text in enumerate(names):
        late = figures[f"level{level}"]["late_ms"]
        rows.append([text, f"{late['p50']:.0f}, {late['p99']:.0f}, {late['most']:.0f} ms"])
    medians = figures["edges"]["median_late_ms"]
    rows.append(["at each edge, the median", ", ".join(f"{ms:.0f}" for ms in medians) + " ms"])
    late = figures["steady"]["crowd_late_ms"]
    rows.append(["all players, behind HAProxy", f"{late['p50']:.0f}, {late['p99']:.0f}, {late['most']:.0f} ms"])
    return table(rows)


def cost_table(figures):
    cpu, net = figures["cpu_percent_of_a_core"], figures["network_mbit"]
    rows = [["program", "of a core", "sends"],
            ["server of an edge", f"{cpu['edge_server']:.1f} %", f"{net['edge']:.0f} Mbit/s"],
            ["ffmpeg of an edge", f"{cpu['edge_forward']:.1f} %", ""],
            ["HAProxy", f"{cpu['haproxy']:.1f} %", f"{net['haproxy']:.0f} Mbit/s"],
            ["server of the origin", f"{cpu['origin']:.1f} %", f"{net['origin']:.1f} Mbit/s"]]
    return table(rows)


def measured(figures):
    steady, drain, rival = figures["steady"], figures["drain"], figures["rival"]
    limits, health, browser = figures["limits"], figures["health"], figures["browser"]
    doors = figures["doors"]
    return "\n\n".join([
        f"`scripts/scale-test`: {figures['setup']['edges']} edges, {steady['players']} players, one stream of 500 kbit/s.",
        steady_table(figures), cost_table(figures), killed_table(figures),
        f"- **Sessions of the edges**:  {', '.join(map(str, steady['sessions_of_edges']))}; {steady['frames']:,} frames arrived, "
        f"{steady['missing']} were missing. All players were playing {figures['start']['all_play_after_s']:.1f} s after the start.\n"
        f"- **Drained**: {drain['sessions_of_old']} players stayed on the old server, {drain['sessions_of_new']} new ones went to "
        f"the new one, {drain['established_lost']} were lost. After its limit of {drain['age_limit_s']} s, v9-rtmp-drain "
        f"returned and the old server was stopped; the rest played again after {drain['rest_back_after_s']:.1f} s. In a "
        "second run, in which all players left by themselves, v9-rtmp-drain ended "
        f"{drain['empty_after_s']:.1f} s after its start.\n"
        f"- **A rival encoder**: all players played again {rival['back_after_silence_s']:.1f} s after the relayed encoder "
        f"fell silent, and {rival['back_after_close_s']:.1f} s after the next one was killed.\n"
        f"- **RTMPS and IPv6**: {doors['frames_by_rtmps']} of 25 frames over RTMPS, {doors['frames_by_ipv6']} over IPv6, "
        f"{doors['frames_by_rtmps_of_the_other_name']} over RTMPS under the name that selects the origin.\n"
        f"- **Limit**: of {limits['connections_tried']} connections from one address {limits['kept']} were kept; another address "
        f"was served at the same time.\n"
        f"- **Health**: the agent made the server log {health['lines_a_minute_by_agents']:.0f} lines a minute; one TCP "
        f"connect causes {health['lines_of_one_tcp_connect']}.\n"
        f"- **Browser**: {browser['played_s']:.1f} s played in {browser['seconds']:.1f} s, "
        f"{browser['pictures_a_second']:.0f} frames a second, dropped frames: {browser['dropped']}."])


def draw(figures, path):
    try:
        import matplotlib
        matplotlib.use("Agg")
        # The same figures give the same file.
        matplotlib.rcParams["svg.hashsalt"] = "scale"
        from matplotlib import pyplot
    except ImportError:
        print("no plot; scripts/install_packages scale installs what draws it")
        return
    figure, (late, gaps) = pyplot.subplots(1, 2, figsize=(11, 4))
    paper = Arithmetic(figures)
    levels = range(3)
    late.plot(levels, [figures[f"level{i}"]["late_ms"]["p50"] for i in levels], "o-", label="median")
    late.plot(levels, [figures[f"level{i}"]["late_ms"]["p99"] for i in levels], "s-", label="99 %")
    late.plot(range(4), [paper.first_ms + i * paper.level_ms for i in range(4)], "--", color="gray", label="calculated")
    late.set(xlabel="levels of edges between origin and player", ylabel="late by, ms", title="Lateness by level")
    late.set_xticks(range(4), ["0\n≤ 120 players", "1\n≤ 14,400", "2\n≤ 1.7 million", "3\n≤ 207 million"])
    late.legend(fontsize="small")
    names = [name for name in ("edge_killed", "edge_cut", "origin_killed", "origin_cut", "haproxy_killed") if name in figures]
    gaps.barh([name.replace("_", " ") for name in names], [figures[name]["without_media_most_s"] for name in names],
              color="tab:blue", alpha=0.4, label="most")
    gaps.barh([name.replace("_", " ") for name in names], [figures[name]["without_media_median_s"] for name in names],
              color="tab:blue", label="median")
    gaps.invert_yaxis()
    gaps.set(xlabel="seconds without media", title="What players notice")
    gaps.legend(fontsize="small")
    for axes in (late, gaps):
        axes.grid(alpha=0.3)
        axes.set_ylim(*axes.get_ylim()) if axes is gaps else axes.set_ylim(bottom=0)
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})


def text_of(figures):
    return measured(figures) + "\n\nCalculated from these figures:\n\n" + Arithmetic(figures).tables()


def page_with(text):
    before, rest = PAGE.read_text(encoding="utf-8").split(BEGIN)
    return before + BEGIN + "\n" + text + "\n" + END + rest.split(END)[1]


def main(arguments):
    if arguments == ["--check-page"]:
        figures = json.loads((RESULTS / "scale.json").read_text(encoding="utf-8"))
        if PAGE.read_text(encoding="utf-8") != page_with(text_of(figures)):
            print("docs/scaling.md is not what was measured: scripts/scale_report.py bench/results/scale.json --update-page")
            return 1
        return 0
    path = pathlib.Path(arguments[0])
    figures = json.loads(path.read_text(encoding="utf-8"))
    draw(figures, path.parent / "scale.svg")
    if "--update-page" not in arguments:
        print(text_of(figures))
        return 0
    if path.resolve().parent != RESULTS:
        shutil.copy(path, RESULTS / "scale.json")
        shutil.copy(path.parent / "scale.svg", RESULTS / "scale.svg")
    PAGE.write_text(page_with(text_of(figures)), encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
