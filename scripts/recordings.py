"""Reads the recordings of the encoders and players of scripts/demo and scripts/interop, and compares their packets."""

import os
import subprocess
from dataclasses import dataclass

FIRST_TIMESTAMP_LIMIT_MS = 200
SHIFT_SPREAD_LIMIT_MS = 2
KINDS = ("video", "audio")
UNITS = {"video": "frames", "audio": "audio packets"}


@dataclass(frozen=True)
class Packet:
    """A frame or audio packet of a recording, in order of arrival."""

    dts_ms: int
    is_key_frame: bool
    digest: str


@dataclass(frozen=True)
class Comparison:
    """How the packets of one player match those published."""

    received: int  # those that count, and foreign ones
    before_join: int  # published before the player's first packet
    missing: int  # published after that, but not received
    foreign: int  # received, but not published in this form or order
    shift_spread_ms: int  # variation of the timestamp shift


class ToolError(Exception):
    """ffprobe or ffmpeg failed; complaints are its messages."""

    def __init__(self, arguments, complaints):
        super().__init__("\n".join([" ".join(arguments), *complaints[-3:]]))
        self.complaints = complaints


def run_tool(arguments):
    result = subprocess.run(arguments, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    if result.returncode != 0:
        raise ToolError(arguments, result.stderr.splitlines() or [f"status {result.returncode}"])
    return result


def read_packets(path):
    """Returns the packets of a recording by kind; no packets if nothing was recorded."""
    packets = {kind: [] for kind in KINDS}
    if not os.path.exists(path) or os.path.getsize(path) == 0:
        return packets
    entries = "packet=codec_type,dts,flags,data_hash"
    listing = run_tool(["ffprobe", "-v", "error", "-show_data_hash", "sha256", "-show_entries", entries,
                        "-of", "compact=print_section=0", path]).stdout
    for line in listing.splitlines():
        fields = dict(field.split("=", 1) for field in line.split("|") if "=" in field)
        if fields.get("codec_type") in packets and "data_hash" in fields:  # FLV counts in milliseconds.
            packets[fields["codec_type"]].append(
                Packet(int(fields["dts"]), fields["flags"].startswith("K"), fields["data_hash"]))
    return packets


def compare(published, received, count):
    """Compares both lists: the received packets must be a contiguous part of those published, up to the last that
    counts."""
    position = 0
    before_join = None
    missing = foreign = counted = 0
    shifts_ms = []
    for packet in received:
        found = next((i for i in range(position, len(published)) if published[i].digest == packet.digest), None)
        if found is None:
            foreign += 1
            continue
        if before_join is None:
            before_join = min(found, count)
        else:
            missing += max(0, min(found, count) - position)
        position = found + 1
        counted += 1 if found < count else 0
        shifts_ms.append(packet.dts_ms - published[found].dts_ms)
    missing += max(0, count - position)
    # A player's clock begins at its first packet of either kind, and nothing comes before 0.
    even_shifts_ms = shifts_ms[1:] or [0]
    return Comparison(counted + foreign, before_join or 0, missing, foreign, max(even_shifts_ms) - min(even_shifts_ms))


def write_from_key_frame(source, target, frames):
    """Copies this many frames of a recording from the first key frame on, and all of its audio."""
    run_tool(["ffmpeg", "-nostdin", "-v", "error", "-y", "-copyts", "-i", source, "-map", "0", "-c", "copy",
              "-frames:v", str(frames), "-avoid_negative_ts", "disabled", "-f", "flv", target])


def decode_from_key_frame(source, target, frames):
    try:
        write_from_key_frame(source, target, frames)
    except ToolError as error:
        return 0, error.complaints
    return decode(target)


def decode(path):
    """Decodes everything. Returns the number of decoded frames and the decoder's messages."""
    result = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-nostats", "-progress", "pipe:1", "-i", path,
                             "-map", "0", "-fps_mode", "passthrough", "-f", "null", "-"],
                            stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    counts = [int(line.split("=", 1)[1]) for line in result.stdout.splitlines() if line.startswith("frame=")]
    complaints = [line for line in result.stderr.splitlines() if line.strip()]
    if result.returncode != 0 and not complaints:
        complaints = [f"the decoder ended with status {result.returncode}"]
    return (counts[-1] if counts else 0), complaints


def first_key_frame(frames):
    return next((i for i, frame in enumerate(frames) if frame.is_key_frame), None)


def check_published(published, counts):
    """Returns what is wrong with the published stream: a short one would make every comparison worthless."""
    return [f"only {len(published[kind])} of {counts[kind]} {UNITS[kind]} were published"
            for kind in KINDS if len(published[kind]) < counts[kind]]


def check_received(name, received, comparisons, must_join_late, kinds=KINDS, has_timestamps=True):
    problems = []
    for kind in kinds:
        unit, comparison = UNITS[kind], comparisons[kind]
        if not received[kind]:
            problems.append(f"{name}: no {unit} at all")
            continue
        if must_join_late and comparison.before_join == 0:
            problems.append(f"{name}: did not join late: it has the first of the {unit}")
        if not must_join_late and comparison.before_join > 0:
            problems.append(f"{name}: the first {comparison.before_join} {unit} are missing")
        if comparison.missing > 0:
            problems.append(f"{name}: {comparison.missing} {unit} are missing after its first one")
        if comparison.foreign > 0:
            problems.append(f"{name}: {comparison.foreign} {unit} are corrupt or out of order")
        if not has_timestamps:
            continue
        if not 0 <= received[kind][0].dts_ms <= FIRST_TIMESTAMP_LIMIT_MS:
            problems.append(f"{name}: the first of the {unit} has timestamp {received[kind][0].dts_ms} ms, not near 0")
        if comparison.shift_spread_ms > SHIFT_SPREAD_LIMIT_MS:
            problems.append(f"{name}: the timestamps of the {unit} are uneven by {comparison.shift_spread_ms} ms")
    return problems


def check_decoded(name, from_key_frame, decoded, complaints):
    problems = []
    if from_key_frame == 0:
        problems.append(f"{name}: no key frame")
    if decoded != from_key_frame:
        problems.append(f"{name}: {decoded} of {from_key_frame} frames decode from the first key frame on")
    if complaints:
        problems.append(f"{name}: {len(complaints)} decode errors after the first key frame, the first one:"
                        f" {complaints[0]}")
    return problems
