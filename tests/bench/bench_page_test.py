#!/usr/bin/python3
"""How scripts/bench turns reports into figures, and when a figure misses its limit."""
import json
import pathlib
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "bench"))
import bench_cases  # noqa: E402
import bench_page  # noqa: E402


def relay(cost, **others):
    return {"setup": {"publishers": 1, "players_each": 120}, "seconds": 5, "cpu_s_per_gb": cost, "frames": 1000,
            "bytes": 1000, "lost": 0, "duplicated": 0, "reordered": 0, "damaged": 0, "not_arrived": 0, "failures": [],
            "server": {"main_cpu_s": 0.1, "cpu_percent": 10, "rss_kib": 4096, "voluntary_switches": 10},
            "lateness": {"p50_ms": 30, "p99_ms": 60, "p999_ms": 70, "histogram": [[30.0, 10], [30.5, 10]]}, **others}


def idle(main_cpu_s):
    return {"seconds": 5, "failures": [], "server": {"main_cpu_s": main_cpu_s, "cpu_percent": 1, "rss_kib": 4096},
            "idle": {"empty_kib": 2048, "kib_each": 20, "memory_kib": [[0, 2048], [120, 4096]]}}


def figure(reports, start):
    return next(f for f in bench_cases.figures_of(bench_cases.Results(reports)) if f.name.startswith(start))


class Figures(unittest.TestCase):
    def test_a_cost_is_the_median_of_the_ratios_to_the_floor_of_the_same_round(self):
        reports = {"floor_120x4": [relay(1), relay(2), relay(10)], "players_120x4": [relay(1.1), relay(2.4), relay(15)]}
        self.assertAlmostEqual(figure(reports, "120 players, 4 Mbit/s").value, 1.2)

    def test_a_figure_at_its_limit_holds_and_one_above_does_not(self):
        self.assertTrue(bench_cases.Figure("x", 1.2, 1.2).holds)
        self.assertFalse(bench_cases.Figure("x", 1.201, 1.2).holds)

    def test_figures_that_were_not_measured_are_left_out(self):
        names = [f.name for f in bench_cases.figures_of(bench_cases.Results({}))]
        self.assertEqual(names, ["frames lost or damaged, in all"])

    def test_every_kind_of_fault_counts(self):
        for kind in ("lost", "duplicated", "reordered", "damaged", "not_arrived"):
            row = figure({"players_10x4": [relay(1, **{kind: 3})]}, "frames lost")
            self.assertEqual(row.value, 3)
            self.assertFalse(row.holds)

    def test_the_main_threads_time_for_one_more_excludes_its_time_at_rest(self):
        def main(frames, main_cpu_s):
            return [relay(1, frames=frames, server={"main_cpu_s": main_cpu_s})]

        reports = {"main_players_1": main(1000, 0.020), "main_players_60": main(60000, 0.079),
                   "main_players_127": main(127000, 0.1795)}
        results = bench_cases.Results(reports)
        self.assertAlmostEqual(results.main_us("main_players_1", "main_players_60"), 1)
        self.assertAlmostEqual(figure(reports, "main thread").value, 1.5)
        self.assertFalse(figure(reports, "main thread").holds)

    def test_stuck_players_may_take_the_stream_once_and_a_little_for_each_message(self):
        stuck = {"players": 100, "before_kib": 5000, "peak_kib": 6000, "after_kib": 5100, "stream_bytes": 500000}
        report = relay(1, stuck=stuck)
        share, left = bench_cases.Results({"stuck_100": [report]}).stuck_memory()
        self.assertAlmostEqual(share, 1000 * 1024 / (1.3 * 500000 + 100 * 1000 / 120 * 100))
        self.assertEqual(left, 100)


class Page(unittest.TestCase):
    def document(self, floor):
        return {"date": "today", "machine": {"processor": "p", "cores": 2, "memory_gib": 1, "system": "s"},
                "commit": "abc", "command": "scripts/bench", "judged": True, "rounds": 1, "seconds": 5,
                "stand_ins": {"floor_120x4": [relay(floor)]},
                "builds": {"this": {"players_120x4": [relay(3)], "idle_120": [idle(0.1)]}}}

    def page(self, document):
        with tempfile.TemporaryDirectory() as name:
            bench_page.write(document, pathlib.Path(name))
            self.assertEqual(json.loads((pathlib.Path(name) / "results.json").read_text()), document)
            return (pathlib.Path(name) / "README.md").read_text()

    def test_the_page_names_machine_commit_and_command(self):
        page = self.page(self.document(1))
        for text in ("p, 2 cores", "abc", "`scripts/bench`", "| 3 x floor | 1.2 | **no** |"):
            self.assertIn(text, page)
        self.assertNotIn("invalid.**", page)

    def test_a_run_with_an_expensive_floor_is_invalid(self):
        self.assertIn("**This run is invalid.**", self.page(self.document(1.6)))

    def test_the_two_polls_are_at_most_60_ms_and_their_density_is_whole(self):
        steps = [ms / 10 for ms in range(0, 700)]
        self.assertAlmostEqual(sum(bench_page.theoretical_density(ms) for ms in steps) / 10, 1, places=2)
        self.assertEqual(bench_page.theoretical_density(60), 0)


if __name__ == "__main__":
    unittest.main()
