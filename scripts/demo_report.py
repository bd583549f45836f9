"""Reports on the recordings of scripts/demo's players: a table, the problems, and pictures.

Reads published.flv, early.flv and late.flv of a directory. Writes early_from_key_frame.flv and
late_from_key_frame.flv beside them, which hold what a decoder can show, and contact_sheet.png.
"""

import os
import subprocess

from processes import say
from recordings import (KINDS, check_decoded, check_published, check_received, compare, decode_from_key_frame,
                        first_key_frame, read_packets)

FONT = "/usr/share/fonts/truetype/dejavu/DejaVuSansMono.ttf"
PLAYERS = ("early", "late")


def print_table(rows):
    head = ("", "video frames", "", "", "audio packets", "", "", "first timestamp", "", "after the first key frame", "")
    names = ("", "count", "missing", "corrupt", "count", "missing", "corrupt", "video ms", "audio ms", "decoded",
             "decode errors")
    widths = [max(len(str(row[i])) for row in [names, *rows]) for i in range(len(names))]
    spans = [range(0, 1), range(1, 4), range(4, 7), range(7, 9), range(9, 11)]
    print()
    print("    " + "   ".join(head[span[0]].center(sum(widths[i] for i in span) + 2 * (len(span) - 1))
                              for span in spans).rstrip())
    for row in [names, *rows]:
        groups = ["  ".join(str(row[i]).rjust(widths[i]) if i > 0 else row[i].ljust(widths[i]) for i in span)
                  for span in spans]
        print("    " + "   ".join(groups).rstrip())
    print()


def compare_player(directory, name, published, counts):
    """Returns the player's row of the table and what is wrong with its recording."""
    is_late = name == "late"
    recording = os.path.join(directory, f"{name}.flv")
    received = read_packets(recording)
    comparisons = {kind: compare(published[kind], received[kind], counts[kind]) for kind in KINDS}
    problems = check_received(f"{name} player", received, comparisons, is_late)

    key_frame = first_key_frame(received["video"])
    from_key_frame = 0 if key_frame is None else max(0, comparisons["video"].received - key_frame)
    decoded, complaints = 0, []
    if from_key_frame > 0:
        decoded, complaints = decode_from_key_frame(
            recording, os.path.join(directory, f"{name}_from_key_frame.flv"), from_key_frame)
    problems += check_decoded(f"{name} player", from_key_frame, decoded, complaints)

    row = [f"{name} player"]
    for kind in KINDS:
        comparison = comparisons[kind]
        missing = comparison.missing + (0 if is_late else comparison.before_join)
        row += [comparison.received, missing, comparison.foreign]
    row += [received[kind][0].dts_ms if received[kind] else "-" for kind in KINDS]
    return (*row, f"{decoded} of {from_key_frame}", len(complaints)), problems


def report(directory, counts):
    """Prints the table. Returns true if nothing was lost, changed or undecodable; otherwise prints a line for each
    problem. Only the first packets count, counts[kind] of each kind, because the end of the stream may be lost on the
    way to the server."""
    published = read_packets(os.path.join(directory, "published.flv"))
    problems = check_published(published, counts)
    firsts = [published[kind][0].dts_ms if published[kind] else "-" for kind in KINDS]
    published_counts = [min(len(published[kind]), counts[kind]) for kind in KINDS]
    rows = [("published", published_counts[0], "", "", published_counts[1], "", "", *firsts, "", "")]
    for name in PLAYERS:
        row, of_player = compare_player(directory, name, published, counts)
        rows.append(row)
        problems += of_player
    print_table(rows)
    for problem in problems:
        print(f"    WRONG: {problem}")
    return not problems


def sheet_row(index, name, layout, title):
    """Returns ffmpeg's filters for one player: a picture for each second, with the time by the player's clock."""
    return (f"[{index}:v]select='isnan(prev_selected_t)+gte(t-prev_selected_t,0.99)',scale=320:180"
            f",drawtext=fontfile={FONT}:text='player %{{pts\\:hms}}':fontsize=18:fontcolor=black:box=1"
            ":boxcolor=white@0.85:boxborderw=4:x=w-text_w-8:y=8"
            f",tile=layout={layout}:padding=4:margin=4,pad=iw:ih+36:0:36:color=0x202020"
            f",drawtext=fontfile={FONT}:text='{title}':fontsize=20:fontcolor=white:x=12:y=9[{name}]")


def write_contact_sheet(directory, late_join_s):
    """Returns false if the sheet could not be drawn."""
    sheet, log_path = (os.path.join(directory, name) for name in ("contact_sheet.png", "contact_sheet.log"))
    graph = ";".join([
        sheet_row(0, "early", "6x2", "Early player, one picture of each second"),
        sheet_row(1, "late", "6x1", f"Late player, joined after {late_join_s} s, from its first key frame on"),
        "[early][late]vstack"])
    inputs = [argument for name in PLAYERS
              for argument in ("-copyts", "-i", os.path.join(directory, f"{name}_from_key_frame.flv"))]
    with open(log_path, "w", encoding="utf-8") as log:
        result = subprocess.run(
            ["ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-y", *inputs, "-filter_complex", graph,
             "-frames:v", "1", "-update", "1", sheet], stdin=subprocess.DEVNULL, stdout=log, stderr=log, check=False)
    if result.returncode == 0 and os.path.exists(sheet) and os.path.getsize(sheet) > 0:
        say(f"What the players saw: {sheet}")
        return True
    print(f"The contact sheet could not be drawn: see {log_path}")
    return False
