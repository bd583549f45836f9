"""The measurements of scripts/bench: the cases of each round, the cases measured once, and the limits."""
import dataclasses
import statistics

PLAYERS = 120
# A machine on which the bare fan-out costs more is too slow or too busy for the figures to count.
MOST_FLOOR_S_PER_GB = 1.5
KIB = 1024
STUCK_SECONDS = 60
STUCK_PLAYERS = 100
# The memory that a message queued for a stuck player may take in addition to its bytes.
STUCK_BYTES_PER_MESSAGE = 100
STUCK_SHARE = 1.3
# Memory that the process may use for the first time.
STUCK_LEFT_KIB = 2048


@dataclasses.dataclass(frozen=True)
class Case:
    name: str
    arguments: tuple[str, ...]
    mode: str = "relay"
    # In units of the run's --seconds, or in seconds if given.
    seconds: float | None = None

    @property
    def stands_in(self):
        """Whether something other than a server is measured."""
        return self.mode in ("floor", "sleepers")


def case(name, arguments="", mode="relay", seconds=None):
    return Case(name, tuple(arguments.split()), mode, seconds)


EACH_ROUND = [
    case("floor_120x4", mode="floor"),
    case("players_120x4"),
    case("floor_120x8", "--kbit 8000", mode="floor"),
    case("players_120x8", "--kbit 8000"),
    case("players_120x8_key_12", "--kbit 8000 --key-size 12"),
    case("floor_10x4", "--players 10", mode="floor"),
    case("players_10x4", "--players 10"),
    case("players_60x4", "--players 60"),
    case("streams_60_at_4096", "--publishers 60 --players 1"),
    case("streams_60_at_128", "--publishers 60 --players 1 --publisher-chunk-size 128"),
    case("sleepers_120", mode="sleepers"),
    case("idle_120", mode="idle"),
]

SWEEP_PLAYERS = (1, 30, 90, 127)
SWEEP_CHUNKS = (512, 1024, 4096, 65536)
# Many small messages. The main thread's time for one more is the difference between the larger and the smaller case, so
# its time at rest is not counted.
MAIN_PLAYERS = (1, 60, 127)
MAIN_STREAMS = (1, 20, 60)
ONCE = [
    *[case(f"players_{n}x4", f"--players {n}") for n in SWEEP_PLAYERS],
    *[case(f"floor_{n}x4", f"--players {n}", mode="floor") for n in (1, 60)],
    *[case(f"chunk_{n}", f"--chunk-size {n}") for n in SWEEP_CHUNKS],
    *[case(f"main_players_{n}", f"--players {n} --fps 500 --frame-bytes 200 --audio-kbit 0") for n in MAIN_PLAYERS],
    *[case(f"main_streams_{n}", f"--publishers {n} --players 1 --fps 250 --frame-bytes 200 --audio-kbit 0")
      for n in MAIN_STREAMS],
    case("full_127x8", "--players 127 --kbit 8000", seconds=10),
    case("stuck_none", "--players 20", seconds=15),
    case("stuck_100", f"--players 20 --stuck {STUCK_PLAYERS}", seconds=STUCK_SECONDS),
]

# To check that everything works: few clients, and one case of each kind.
SMOKE_OPTIONS = {"--players": 5, "--publishers": 3, "--stuck": 2}
SMOKE_ONCE = [one for one in ONCE if one.name in ("chunk_4096", "main_players_127", "main_streams_60", "stuck_none",
                                                  "stuck_100")]


@dataclasses.dataclass
class Figure:
    name: str
    value: float
    limit: float
    unit: str = ""

    @property
    def holds(self):
        return self.value <= self.limit


class Results:
    """The reports of one build and of the stand-ins for a server, by case."""

    def __init__(self, reports):
        self.reports = reports

    def values(self, name, *path):
        found = []
        for report in self.reports.get(name, []):
            for key in path:
                report = report.get(key, {})
            if isinstance(report, (int, float)):
                found.append(report)
        return found

    def median(self, name, *path):
        """Returns None if the case was not measured."""
        values = self.values(name, *path)
        return statistics.median(values) if values else None

    def ratio(self, name, other, *path):
        """Returns the median of the ratios of each round."""
        pairs = list(zip(self.values(name, *path), self.values(other, *path)))
        return statistics.median(a / b for a, b in pairs) if pairs else None

    def cost(self, name):
        return self.median(name, "cpu_s_per_gb")

    def main_us(self, less, more):
        """Returns the main thread's time for each additional message and player of the second case."""
        def rate(name, *path):
            value, seconds = self.median(name, *path), self.median(name, "seconds")
            return None if value is None else value / seconds

        times = [rate(name, "server", "main_cpu_s") for name in (less, more)]
        frames = [rate(name, "frames") for name in (less, more)]
        if None in times + frames or frames[0] >= frames[1]:
            return None
        return (times[1] - times[0]) * 1e6 / (frames[1] - frames[0])

    def faults(self):
        return sum(max(report.get(kind, 0), 0) for reports in self.reports.values() for report in reports
                   for kind in ("lost", "duplicated", "reordered", "damaged", "not_arrived"))

    def failures(self):
        return [f"{name}: {text}" for name, reports in self.reports.items() for report in reports
                for text in report["failures"]]

    def stuck_memory(self):
        """Returns the cost of the stuck players as a share of its limit, and the KiB still in use afterwards."""
        report = (self.reports.get("stuck_100") or [{}])[0]
        stuck = report.get("stuck")
        if not stuck:
            return None, None
        players = max(report["setup"]["players_each"], 1)
        messages = report["frames"] / players
        allowed = STUCK_SHARE * stuck["stream_bytes"] + STUCK_BYTES_PER_MESSAGE * messages * stuck["players"]
        return ((stuck["peak_kib"] - stuck["before_kib"]) * KIB / allowed, stuck["after_kib"] - stuck["before_kib"])

    def stuck_shift(self):
        quiet, stuck = (self.median(name, "lateness", "p99_ms") for name in ("stuck_none", "stuck_100"))
        return None if quiet is None or stuck is None else abs(stuck - quiet)

    def growth(self, name, steps):
        """Returns the ratio of the cost of one more between the last two steps to that between the first two."""
        first, last = (self.main_us(f"{name}_{less}", f"{name}_{more}") for less, more in zip(steps, steps[1:]))
        return None if first is None or last is None or first <= 0 else last / first


def figures_of(results):
    """Returns the table of all figures that could be measured."""
    ratio, median = results.ratio, results.median
    memory_share, memory_left = results.stuck_memory()
    rows = [
        Figure("120 players, 4 Mbit/s: CPU per GB", ratio("players_120x4", "floor_120x4", "cpu_s_per_gb"), 1.2,
               "x floor"),
        Figure("120 players, 8 Mbit/s: CPU per GB", ratio("players_120x8", "floor_120x8", "cpu_s_per_gb"), 1.3,
               "x floor"),
        Figure("the same, key frames 12 times the mean", ratio("players_120x8_key_12", "players_120x8", "cpu_s_per_gb"),
               1.1, "x that"),
        Figure("10 players, 4 Mbit/s: CPU per GB", ratio("players_10x4", "floor_10x4", "cpu_s_per_gb"), 1.7, "x floor"),
        Figure("60 publishers with chunk size 4096, one player each",
               ratio("streams_60_at_4096", "floor_120x4", "cpu_s_per_gb"), 5, "x floor of 120"),
        Figure("60 publishers with chunk size 128, one player each",
               ratio("streams_60_at_128", "floor_120x4", "cpu_s_per_gb"), 5, "x floor of 120"),
        Figure("120 players against 60: CPU per GB", ratio("players_120x4", "players_60x4", "cpu_s_per_gb"), 1.1, "x"),
        Figure("120 idle connections: CPU", ratio("idle_120", "sleepers_120", "server", "cpu_percent"), 1.15,
               "x sleepers"),
        Figure("an idle connection: memory", median("idle_120", "idle", "kib_each"), 36, "KiB"),
        Figure("a server without connections: memory", median("idle_120", "idle", "empty_kib"), 4 * KIB, "KiB"),
        Figure("120 players: late, median", median("players_120x4", "lateness", "p50_ms"), 33, "ms"),
        Figure("120 players: late, 99 %", median("players_120x4", "lateness", "p99_ms"), 63, "ms"),
        Figure("120 players: late, 99.9 %", median("players_120x4", "lateness", "p999_ms"), 75, "ms"),
        Figure("100 stuck players: memory", memory_share, 1, "x what they may take"),
        Figure("100 stuck players: memory in use after they left", memory_left, STUCK_LEFT_KIB, "KiB"),
        Figure("100 stuck players: change in the others' lateness, 99 %", results.stuck_shift(), 5, "ms"),
        Figure("main thread, each further message and player: 60 to 127 players",
               results.growth("main_players", MAIN_PLAYERS), 1.2,
               f"x that of {MAIN_PLAYERS[0]} to {MAIN_PLAYERS[1]}"),
        Figure("main thread, each further message and player: 20 to 60 streams",
               results.growth("main_streams", MAIN_STREAMS), 1.2,
               f"x that of {MAIN_STREAMS[0]} to {MAIN_STREAMS[1]}"),
        Figure("frames lost or damaged, in all", results.faults(), 0),
    ]
    return [row for row in rows if row.value is not None]
