"""The output of scripts/interop, and the tables of docs/clients.md."""

import collections
import os
import textwrap

import interop_clients as clients
import recordings
from interop_outcomes import CANNOT, DEFECT, ENDS
from processes import say, text_of
from recordings import KINDS

PAGE = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "docs/clients.md")
PAGE_BEGIN, PAGE_END = "<!-- measured: begin -->", "<!-- measured: end -->"


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
    lines += ["", "| player | why it cannot play |", "| --- | --- |"]
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
    listing = recordings.run_tool(["dpkg-query", "-W", "-f", "${Package} ${Version}\n", *sorted(packages)]).stdout
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
