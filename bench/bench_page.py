#!/usr/bin/python3
"""Writes the page of scripts/bench: results.json, README.md and the plots beside it.

usage: bench_page.py RESULTS.JSON    writes the page of these results anew
"""
import json
import pathlib
import statistics
import sys

import bench_cases

MAIN_POLL_MS = 10
WRITER_POLL_MS = 50
COLOURS = {"this": "tab:blue", "against": "tab:orange"}
LABELS = {"this": "this server", "against": "the other build"}
GB = 1e9


def value_of(figure):
    number = f"{figure.value:.0f}" if abs(figure.value) >= 100 else f"{figure.value:.3g}"
    return f"{number} {figure.unit}".strip()


def table(figures, judged=True):
    """Returns the table as text for a terminal."""
    verdicts = {True: "ok", False: "MISSED"} if judged else {True: "", False: ""}
    cells = [(figure.name, value_of(figure), f"at most {figure.limit:g}", verdicts[figure.holds]) for figure in figures]
    widths = [max((len(cell[i]) for cell in cells), default=0) for i in range(3)]
    return "\n".join("  ".join((*(text.ljust(width) for text, width in zip(cell, widths)), cell[3])).rstrip()
                     for cell in cells)


def markdown(header, rows):
    lines = [header, ["---"] * len(header), *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)


def measured(document, build):
    return bench_cases.Results({**document["stand_ins"], **document["builds"][build]})


def figures_table(document):
    """Returns one column of values for each build."""
    columns = {build: {figure.name: figure for figure in bench_cases.figures_of(measured(document, build))}
               for build in document["builds"]}
    rows = []
    for name, figure in columns["this"].items():
        values = [columns[build].get(name) for build in columns]
        rows.append([name, *(value_of(v) if v else "" for v in values), f"{figure.limit:g}",
                     ("yes" if figure.holds else "**no**") if document["judged"] else "not judged"])
    return markdown(["figure", *(LABELS[build] for build in columns), "at most", "holds"], rows)


def cases_table(document):
    rows = []
    measured_cases = (document["stand_ins"], *document["builds"].values())
    names = list(dict.fromkeys(name for reports in measured_cases for name in reports))
    for name in names:
        row = [name]
        for build in document["builds"]:
            results = measured(document, build)
            cost, percent = results.cost(name), results.median(name, "server", "cpu_percent")
            late = [results.median(name, "lateness", p) for p in ("p50_ms", "p99_ms", "p999_ms")]
            switches = results.median(name, "server", "voluntary_switches")
            seconds = results.median(name, "seconds")
            row += [f"{cost:.3f}" if cost else "", f"{percent:.1f} %" if percent is not None else "",
                    " / ".join(f"{ms:.0f}" for ms in late) if late[0] else "",
                    f"{switches / seconds:.0f}" if switches and seconds else "",
                    f"{results.median(name, 'server', 'rss_kib') / bench_cases.KIB:.1f}"]
        rows.append(row)
    heads = ["s/GB", "CPU", "late: 50, 99, 99.9 %, ms", "waits/s", "MiB"]
    header = ["case"] + [head + (f" ({build})" if len(document["builds"]) > 1 else "")
                         for build in document["builds"] for head in heads]
    return markdown(header, rows)


def points(results, prefix, suffix, value):
    """Returns pairs of the number in a case's name and its value."""
    found = {}
    for name in results.reports:
        middle = name[len(prefix):len(name) - len(suffix)]
        if name.startswith(prefix) and name.endswith(suffix) and middle.isdigit() and value(name) is not None:
            found[int(middle)] = value(name)
    return sorted(found.items())


def plain_ticks(axis, values):
    """Labels a logarithmic axis with plain numbers."""
    axis.set_ticks(values, [f"{value:g}" for value in values])
    axis.set_ticks([], minor=True)


def draw_cost(document, axes):
    for build in document["builds"]:
        results = measured(document, build)
        axes.plot(*zip(*points(results, "players_", "x4", results.cost)), "o-", color=COLOURS[build], label=LABELS[build])
    floor = points(results, "floor_", "x4", results.cost)
    if floor:
        axes.plot(*zip(*floor), "s--", color="gray", label="floor: one send for each message and player")
    axes.set(xlabel="players of one stream of 4 Mbit/s", ylabel="CPU seconds per GB", yscale="log")
    plain_ticks(axes.yaxis, (0.5, 1, 2, 5, 10, 20, 50))


def theoretical_density(ms):
    """Returns the density of the sum of two uniform delays: the main loop's poll and the writer's."""
    ramp_up, ramp_down = ms / MAIN_POLL_MS, (MAIN_POLL_MS + WRITER_POLL_MS - ms) / MAIN_POLL_MS
    return max(0.0, min(1.0, ramp_up, ramp_down)) / WRITER_POLL_MS


def draw_lateness(document, axes):
    for build in document["builds"]:
        reports = document["builds"][build].get("players_120x4", [])
        counts = {}
        for report in reports:
            for end_ms, count in report["lateness"]["histogram"]:
                # The middle of the millisecond that contains the half millisecond before end_ms.
                middle = int(end_ms - 0.25) + 0.5
                counts[middle] = counts.get(middle, 0) + count
        frames = max(sum(counts.values()), 1)
        axes.step(sorted(counts), [counts[ms] / frames for ms in sorted(counts)], where="mid", color=COLOURS[build],
                  label=LABELS[build])
    steps = [step / 2 for step in range(2 * (MAIN_POLL_MS + WRITER_POLL_MS) + 1)]
    axes.plot(steps, [theoretical_density(ms) for ms in steps], "--", color="gray",
              label=f"{MAIN_POLL_MS} ms and {WRITER_POLL_MS} ms polls alone")
    axes.set(xlabel="late by, ms", ylabel="share of the frames in a millisecond", xlim=(0, 100))


def draw_memory(document, axes):
    for build in document["builds"]:
        runs = [report["idle"]["memory_kib"] for report in document["builds"][build].get("idle_120", [])]
        for steps in runs:
            axes.plot([count for count, _ in steps], [kib / bench_cases.KIB for _, kib in steps], "o-", markersize=3,
                      color=COLOURS[build], alpha=0.5, label=LABELS[build] if steps is runs[0] else None)
    axes.set(xlabel="connections that wait for a stream", ylabel="resident memory, MiB")
    axes.set_ylim(bottom=0)


def draw_chunks(document, axes):
    for build in document["builds"]:
        results = measured(document, build)
        found = points(results, "chunk_", "", results.cost)
        default = results.cost("players_120x4")
        axes.plot(*zip(*([(128, default)] if default else []) + found), "o-", color=COLOURS[build], label=LABELS[build])
    floor = results.cost("floor_120x4")
    if floor:
        axes.axhline(floor, linestyle="--", color="gray", label="floor")
    axes.set(xlabel="chunk size that the players ask for, bytes", ylabel="CPU seconds per GB", xscale="log")
    plain_ticks(axes.xaxis, (128, *bench_cases.SWEEP_CHUNKS))
    axes.set_ylim(bottom=0)


PLOTS = {"cost_over_players": ("CPU per GB by number of players", draw_cost, "players_120x4"),
         "lateness": ("How late frames are, 120 players", draw_lateness, "players_120x4"),
         "memory_over_connections": ("Memory by number of connections", draw_memory, "idle_120"),
         "cost_over_chunk_size": ("CPU per GB by chunk size, 120 players", draw_chunks, "chunk_4096")}


def draw(document, out_dir):
    """Returns the names of the plots; none without matplotlib."""
    try:
        import matplotlib
        matplotlib.use("Agg")
        # Identical results give an identical file.
        matplotlib.rcParams["svg.hashsalt"] = "bench"
        from matplotlib import pyplot
    except ImportError:
        print("no plots; scripts/install_packages bench installs what draws them")
        return []
    drawn = []
    for name, (title, plot, needed) in PLOTS.items():
        if needed not in document["builds"]["this"]:
            continue
        figure, axes = pyplot.subplots(figsize=(8, 4.5))
        plot(document, axes)
        axes.set_title(title)
        axes.grid(alpha=0.3)
        axes.legend(fontsize="small")
        figure.tight_layout()
        figure.savefig(out_dir / f"{name}.svg", metadata={"Date": None})
        pyplot.close(figure)
        drawn.append(name)
    return drawn


def gb_of(document):
    return sum(report.get("bytes", 0) for reports in (document["stand_ins"], *document["builds"].values())
               for runs in reports.values() for report in runs) / GB


def floor_line(document):
    floor = [report["cpu_s_per_gb"] for report in document["stand_ins"].get("floor_120x4", [])]
    if not floor:
        return ""
    is_invalid = document["judged"] and statistics.median(floor) > bench_cases.MOST_FLOOR_S_PER_GB
    verdict = " **This run is invalid.**" if is_invalid else ""
    return (f"The floor of 120 players x 4 Mbit/s cost {statistics.median(floor):.3f} s of CPU per GB here, "
            f"{min(floor):.3f} to {max(floor):.3f}; above {bench_cases.MOST_FLOOR_S_PER_GB} the run is invalid."
            f"{verdict}\n")


def write(document, out_dir):
    out_dir.mkdir(parents=True, exist_ok=True)
    (out_dir / "results.json").write_text(json.dumps(document, indent=1) + "\n", encoding="utf-8")
    plots = draw(document, out_dir)
    machine = document["machine"]
    pictures = "\n\n".join(f"![{PLOTS[name][0]}]({name}.svg)" for name in plots)
    text = f"""# What the server costs, measured

Written by `{document["command"]}`; do not edit. `bench/README.md` says what the cases are and how to read them.

{markdown(["what", "value"], [
    ["machine", f'{machine["processor"]}, {machine["cores"]} cores, {machine["memory_gib"]} GiB, {machine["system"]}'],
    ["commit", document["commit"]], ["date", document["date"]],
    ["measured", f'{document["rounds"]} rounds of {document["seconds"]:g} s, medians; {gb_of(document):.1f} GB relayed'],
])}

{floor_line(document)}
{figures_table(document)}

{pictures}

## Every case

CPU is the server's, in per cent of one core; *waits/s* is the number of times per second that its threads went to sleep.

{cases_table(document)}
"""
    (out_dir / "README.md").write_text(text, encoding="utf-8")


def main(arguments):
    if len(arguments) != 1:
        print(__doc__, file=sys.stderr)
        return 2
    path = pathlib.Path(arguments[0])
    write(json.loads(path.read_text(encoding="utf-8")), path.parent)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
