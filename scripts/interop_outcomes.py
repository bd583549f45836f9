"""Compares what the players of scripts/interop received with what was published, and judges the result."""

from dataclasses import dataclass, field, replace

import interop_clients as clients
import recordings
from processes import RunError
from recordings import KINDS, ToolError

# An encoder that does not read the server's acknowledgements resets its connection when it exits, and TCP then discards
# data in transit. Players that demultiplex a stream may not record its end. So the stream continues for a moment that
# is not counted.
RUN_OUT_S = 1.5

UNEVEN_RECORDING = "non monotonically increasing dts"  # ffmpeg's message about timestamps when it decodes

WORKS, ENDS, CANNOT, DEFECT = "works", "ends", "cannot", "DEFECT"
WORN_OUT_TOLERANCE = 3  # packets by which the end of a recording may differ


def read_recording(path, pictures_only=False):
    """Returns its packets by kind, in order of arrival; none if it has no audio or video."""
    try:
        packets = recordings.read_packets(path)
    except ToolError:
        return {kind: [] for kind in KINDS}
    if pictures_only and packets["video"]:
        digests = picture_digests(path)
        if len(digests) != len(packets["video"]):
            raise RunError(f"{path}: {len(packets['video'])} frames, but {len(digests)} pictures")
        packets["video"] = [replace(packet, digest=digest) for packet, digest in zip(packets["video"], digests)]
    return packets


def picture_digests(path):
    """Returns the digest of each video packet without its parameter sets, delimiters and supplements (NAL unit types 6
    to 9)."""
    listing = recordings.run_tool(
        ["ffmpeg", "-nostdin", "-v", "error", "-i", path, "-map", "0:v", "-c", "copy", "-copyinkf", "-copypriorss", "1",
         "-copyts", "-avoid_negative_ts", "disabled", "-bsf:v", "h264_mp4toannexb,filter_units=remove_types=6-9",
         "-f", "framehash", "-hash", "md5", "-"]).stdout
    return [line.rsplit(",", 1)[1].strip() for line in listing.splitlines() if line and not line.startswith("#")]


@dataclass(frozen=True)
class Published:
    packets: dict
    counts: dict  # This many from the beginning count.


def count_published(packets, end_may_be_lost):
    """Omits the end of the stream if it may be lost."""
    counts = {}
    for kind in KINDS:
        times = [packet.dts_ms for packet in packets[kind]]
        limit = max(times, default=0) - (RUN_OUT_S * 1000 if end_may_be_lost else 0)
        counts[kind] = sum(time_ms <= limit for time_ms in times)
    return Published(packets, counts)


def without_beginning(packets, recordings):
    """Returns the published packets from the first one with which a recording begins; all of them if there is none."""
    cut = {}
    for kind in KINDS:
        firsts = {recording[kind][0].digest for recording in recordings if recording[kind]}
        begin = next((i for i, packet in enumerate(packets[kind]) if packet.digest in firsts), 0)
        cut[kind] = packets[kind][begin:]
    return cut


def without_run_out(received, published):
    """Returns the received packets up to the last that counts; all if that one was not received."""
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
        comparison = recordings.compare(published.packets[kind], received[kind], published.counts[kind])
        outcome.comparisons[kind] = comparison
        outcome.published[kind] = published.counts[kind] - (comparison.before_join if outcome.is_late else 0)
    key_frame = recordings.first_key_frame(received["video"])
    if key_frame is not None:
        outcome.from_key_frame = max(0, outcome.comparisons["video"].received - key_frame)
    if outcome.from_key_frame > 0:
        outcome.decoded, outcome.decode_errors = recordings.decode_from_key_frame(
            recording, recording.replace(".flv", ".decodable.flv"), outcome.from_key_frame)
    elif received["audio"] and not received["video"]:
        _, outcome.decode_errors = recordings.decode(recording)
    if not outcome.player.keeps_timestamps:
        outcome.decode_errors = [error for error in outcome.decode_errors if UNEVEN_RECORDING not in error]


def problems_of(outcome, published):
    """Returns why this player did not get the stream; empty if it did."""
    kinds = [kind for kind in KINDS if published.counts[kind] > 0]
    problems = []
    for kind in KINDS:
        if kind in kinds:
            problems += recordings.check_received(
                outcome.name, outcome.received, outcome.comparisons, outcome.is_late, (kind,),
                outcome.player.keeps_timestamps)
        elif outcome.received[kind]:
            problems.append(f"{outcome.name}: has {kind}, which was never published")
    if not kinds:
        problems.append("nothing was published")
    if "video" in kinds:
        problems += recordings.check_decoded(
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
        outcome.problems = [f"{outcome.name}: received media, although it is listed as unable to"]
    elif evidence:
        outcome.problems = [f"{outcome.name}: received nothing, but not for the known reason: {evidence}"]
    outcome.verdict = DEFECT if outcome.problems else CANNOT


def judge_worn_out(outcome, expected):
    """For a player whose timestamps exceed 24 bits: it must have stopped there, after the expected packets."""
    for kind in KINDS:
        received = outcome.comparisons[kind].received - outcome.comparisons[kind].foreign
        if abs(received - expected[kind]) > WORN_OUT_TOLERANCE:
            outcome.problems.append(f"{outcome.name}: has {received} {recordings.UNITS[kind]}, although it is known "
                                    f"to end after {expected[kind]}")
    outcome.verdict = DEFECT if outcome.problems else ENDS
