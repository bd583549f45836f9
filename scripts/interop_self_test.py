"""Shows that scripts/interop detects failures: pairs made to fail, each in its own way, with ffmpeg alone.

Each player below must get exactly the verdict next to it, and each refusal must be accepted or not as stated.
"""

import interop_clients as clients
from interop_matrix import LEAST_S, run_matrix
from interop_outcomes import CANNOT, DEFECT, WORKS
from processes import say

RECORD_AGAIN = ("-c:v", "libx264", "-preset", "ultrafast")


def with_options(name, *options, cannot=None):
    """Returns an ffmpeg player with these additional options for the recording, which override earlier ones."""
    plain = clients.play_ffmpeg()

    def command(url, recording):
        arguments = plain(url, recording)
        return [*arguments[:-1], *options, arguments[-1]]

    return clients.Player(name, "ffmpeg", name, command, cannot=cannot)


def with_url(name, change, cannot=None):
    plain = clients.play_ffmpeg()
    return clients.Player(name, "ffmpeg", name, lambda url, recording: plain(change(url), recording), cannot=cannot)


UNKNOWN_COMMAND = clients.NO_FCSUBSCRIBE
NEVER_SAID = clients.CannotWork("unknown", client_says="never said")

# (player, verdict, part of what is reported)
PLAYERS = (
    (with_options("good"), WORKS, None),
    (with_url("another_stream", lambda url: url + "_2"), DEFECT, "no frames at all"),
    (with_options("leaves_early", "-t", "1"), DEFECT, "are missing after its first one"),
    (with_options("loses_frames", "-bsf:v", "noise=drop=eq(n\\,20)"), DEFECT, "1 frames are missing"),
    (with_options("changes_frames", *RECORD_AGAIN), DEFECT, "are corrupt or out of order"),
    (with_options("moves_sound", "-bsf:a", "setts=ts=TS+1000"), DEFECT, "not near 0"),
    (with_options("works_after_all", cannot=NEVER_SAID), DEFECT, "although it is listed as unable to"),
    (with_url("fails_for_another_reason", lambda url: url + "_2", cannot=NEVER_SAID), DEFECT,
     "not for the known reason"),
    (clients.Player("refused", "ffmpeg", "refused", clients.play_ffmpeg("-rtmp_live", "live"), cannot=UNKNOWN_COMMAND),
     CANNOT, None),
)

ACCEPTED = clients.Refusal("accepted", "ffmpeg", "", "", "play rejected, invalid stream name",
                           clients.publish_to("ombrex-live/cam1"))
REFUSED = clients.Refusal("refused", "ffmpeg", "", "", "play rejected, invalid stream name",
                          clients.publish_to("ombrex-live/cam-1"))


def check_outcomes(outcomes):
    """Returns what the matrix should have found but did not."""
    found = {}
    for outcome in outcomes:
        found.setdefault(outcome.player.name, []).append(outcome)
    wrong = []
    for player, verdict, report in PLAYERS:
        of_player = found.get(player.name, [])
        if len(of_player) != 2:
            wrong.append(f"{player.name}: {len(of_player)} runs, not 2")
        for outcome in of_player:
            problems = "; ".join(outcome.problems)
            if outcome.verdict != verdict:
                wrong.append(f"{outcome.name}: {outcome.verdict}, not {verdict}. {problems}")
            elif report is not None and report not in problems:
                wrong.append(f"{outcome.name}: nothing is said about \"{report}\": {problems}")
    return wrong


def run(directory, program):
    """True if all of this is found."""
    publishers = [publisher for publisher in clients.PUBLISHERS if publisher.name == "ffmpeg"]
    players = tuple(player for player, _, _ in PLAYERS)
    outcomes, refused, reported = run_matrix(directory, program, publishers, players, (REFUSED, ACCEPTED), LEAST_S)
    wrong = check_outcomes(outcomes)
    if refused != ["refused"]:
        wrong.append(f"counted as refused: {refused}, instead of only 'refused'")
    if not any(line.startswith("accepted: ") for line in reported):
        wrong.append("the client that the server accepts was not reported")
    for line in wrong:
        print(f"    WRONG: {line}")
    say("The matrix finds what does not work" if not wrong else "The matrix misses something")
    return not wrong
