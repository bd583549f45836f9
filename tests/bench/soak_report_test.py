#!/usr/bin/python3
"""How soak_report.py judges a good run, and the same run with one thing wrong."""
import contextlib
import importlib.util
import io
import json
import pathlib
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "bench"))
import soak_report  # noqa: E402

SECONDS = 1200
FRAMES_PER_SECOND = 7000


def good_samples():
    return [{"seconds": second, "rss_kib": 11000 + second % 60, "threads": 225, "descriptors": 117,
             "server_cpu_percent": 9.5, "load_cpu_percent": 6, "players": 100, "bytes": 12500000,
             "frames": FRAMES_PER_SECOND, "lost": 0, "damaged": 0, "late": 0, "median_ms": 31, "p99_ms": 59,
             "most_ms": 65, "oversleep_ms": 2} for second in range(1, SECONDS + 1)]


def good_totals():
    return {"start": {"rss_kib": 3500, "threads": 1, "descriptors": 5},
            "end": {"rss_kib": 4100, "threads": 1, "descriptors": 5},
            "end_at_rest": True,
            "seconds": SECONDS, "ended_early": False, "failures": [], "failure_count": 0, "late_limit_ms": 250,
            "setup": {"publishers": 8, "players": 100, "kbit": 1000}, "frames": FRAMES_PER_SECOND * SECONDS,
            "bytes": 15000000000, "lost": 0, "missing": 0, "damaged": 0, "late": 0, "median_ms": 31, "p99_ms": 59,
            "most_ms": 65, "server_cpu_ms": 100000, "stop_ms": 2,
            "counts": {"joins": 2500, "leaves": 2500, "stalls": 40, "stalls with full sockets": 38,
                       "garbage clients": 3400, "lists": 200, "drops by id": 100, "drops by stream": 100,
                       "takeovers": 80}}


def good_around_samples():
    columns = {"rss_kib": 6000, "threads": 1, "descriptors": 7, "cpu_percent": 0.4}
    return [{"seconds": second, **{f"{who}_{column}": value for who in ("watchdog", "serve")
                                   for column, value in columns.items()}} for second in range(1, SECONDS + 1)]


def good_around():
    return {"offenders": ["127.0.0.1:40000", "127.0.0.1:40002"],
            "offenders_dropped": ["127.0.0.1:40000", "127.0.0.1:40002"], "problem": None,
            "events": [{"address": address, "action": "dropped"} for address in ("127.0.0.1:40000", "127.0.0.1:40002")],
            "watchdog_said": [], "scrapes": SECONDS, "scrapes_failed": 0, "polls_failed": 0, "complaints": [],
            "page": [{"elements": 900 + i % 2, "heap_kib": 3000 + i} for i in range(20)]}


class SoakReport(unittest.TestCase):
    def setUp(self):
        self.samples = good_samples()
        self.totals = good_totals()
        self.log = "Accepted connection\n"
        self.options = []

    def failed_rows(self):
        """Returns the figures that miss their limits."""
        options = soak_report.parse_arguments(["."] + self.options)
        reports = soak_report.find_reports(self.log.splitlines(keepends=True))
        return [row.figure for row in soak_report.judge(self.samples, self.totals, reports, options)
                if row.holds is False]

    def test_a_good_run_passes(self):
        self.assertEqual(self.failed_rows(), [])

    def test_memory_that_is_not_returned_fails(self):
        self.totals["end"]["rss_kib"] = 3500 + 2048
        self.assertEqual(self.failed_rows(), [])
        self.totals["end"]["rss_kib"] += 1
        self.assertEqual(self.failed_rows(), ["memory left"])
        self.options = ["--memory-rise", "none"]
        self.assertEqual(self.failed_rows(), [])

    def test_memory_is_not_judged_if_the_run_did_not_wait_for_its_return(self):
        self.totals["end"]["rss_kib"] = 3500 + 2049
        self.totals["end_at_rest"] = False
        self.assertEqual(self.failed_rows(), [])

    def test_one_lost_frame_fails(self):
        self.totals["lost"] = 1
        self.assertEqual(self.failed_rows(), ["frames lost"])

    def test_a_frame_that_never_arrived_fails(self):
        self.totals["missing"] = 1
        self.assertEqual(self.failed_rows(), ["frames lost"])

    def test_one_damaged_frame_fails(self):
        self.totals["damaged"] = 1
        self.assertEqual(self.failed_rows(), ["frames damaged"])

    def test_a_run_in_which_nothing_arrived_fails(self):
        self.totals["frames"] = 0
        self.assertEqual(self.failed_rows(), ["frames received"])

    def test_late_frames_may_be_one_in_ten_thousand_and_no_more(self):
        self.totals["late"] = FRAMES_PER_SECOND * SECONDS // 10000
        self.assertEqual(self.failed_rows(), [])
        self.totals["late"] += 1
        self.assertEqual(self.failed_rows(), ["later than 250 ms"])

    def leak(self, kib_per_minute):
        for sample in self.samples:
            sample["rss_kib"] += kib_per_minute * sample["seconds"] / 60

    def test_memory_that_rises_by_more_than_a_mebibyte_in_the_second_half_fails(self):
        self.leak(kib_per_minute=100)
        self.assertEqual(self.failed_rows(), [])
        self.leak(kib_per_minute=5)
        self.assertEqual(self.failed_rows(), ["memory slope"])

    def test_the_longer_the_run_the_smaller_is_the_slope_that_is_allowed(self):
        for sample in self.samples:
            sample["seconds"] *= 30
        self.leak(kib_per_minute=3)
        self.assertEqual(self.failed_rows(), [])
        self.leak(kib_per_minute=1)
        self.assertEqual(self.failed_rows(), ["memory slope"])

    def test_memory_that_has_grown_in_the_first_half_alone_passes(self):
        for sample in self.samples[:SECONDS // 2]:
            sample["rss_kib"] = sample["seconds"] * 15
        self.assertEqual(self.failed_rows(), [])

    def test_a_memory_slope_is_not_judged_in_a_run_below_ten_minutes(self):
        self.leak(kib_per_minute=1000)
        self.samples = self.samples[:599]
        self.assertEqual(self.failed_rows(), [])

    def test_the_limit_of_the_memory_rise_can_be_set_and_left_out(self):
        self.leak(kib_per_minute=1000)
        self.options = ["--memory-rise", "11000"]
        self.assertEqual(self.failed_rows(), [])
        self.options = ["--memory-rise", "none"]
        self.assertEqual(self.failed_rows(), [])

    def test_a_leaked_thread_or_descriptor_fails(self):
        self.totals["end"]["threads"] = 2
        self.totals["end"]["descriptors"] = 6
        self.assertEqual(self.failed_rows(), ["descriptors, start and end", "threads, start and end"])

    def test_a_failure_of_an_actor_fails(self):
        self.totals["failure_count"] = 1
        self.totals["failures"] = ["takeover: the server did not close the connection"]
        self.assertEqual(self.failed_rows(), ["failures"])

    def test_every_sanitizer_report_and_assertion_fails(self):
        for line in ("WARNING: ThreadSanitizer: data race (pid=1)", "==1==ERROR: AddressSanitizer: heap-use-after-free",
                     "==1==ERROR: LeakSanitizer: detected memory leaks", "a.cpp:1:2: runtime error: shift exponent",
                     "v9_rtmp_server: a.cpp:1: Assertion `x' failed."):
            self.log = line + "\n"
            self.assertEqual(self.failed_rows(), ["sanitizer reports, assertions"], line)

    def test_an_actor_that_did_nothing_fails(self):
        for who in soak_report.ALWAYS_SEEN + soak_report.SEEN_IN_A_LONG_RUN:
            self.totals["counts"] = {**good_totals()["counts"], who: 0}
            self.assertEqual(self.failed_rows(), ["actors that did nothing"], who)
            del self.totals["counts"][who]
            self.assertEqual(self.failed_rows(), ["actors that did nothing"], who)

    def test_in_a_short_run_not_every_actor_has_to_do_everything(self):
        for who in soak_report.SEEN_IN_A_LONG_RUN:
            self.totals["counts"][who] = 0
        self.options = ["--short"]
        self.assertEqual(self.failed_rows(), [])

    def test_a_run_that_ended_early_fails_for_losses_but_not_for_actors_without_a_turn(self):
        self.totals["ended_early"] = True
        self.totals["counts"] = {}
        self.assertEqual(self.failed_rows(), [])
        self.totals["lost"] = 1
        self.assertEqual(self.failed_rows(), ["frames lost"])

    def test_a_run_that_broke_off_fails(self):
        for last in ("stop_ms", "end"):
            del self.totals[last]
            self.totals["failure_count"] = 1
            self.assertEqual(self.failed_rows(), ["the run", "failures"], last)
        self.log = "==1==ERROR: LeakSanitizer: detected memory leaks\n"
        self.assertEqual(self.failed_rows(), ["the run", "failures", "sanitizer reports, assertions"])
        self.totals = good_totals()
        self.samples = []
        self.assertIn("the run", self.failed_rows())


class AroundReport(unittest.TestCase):
    def setUp(self):
        self.samples = good_around_samples()
        self.around = good_around()

    def failed_rows(self, ended_early=False):
        return [row.figure for row in soak_report.judge_around(self.samples, self.around, 1024.0, ended_early)
                if row.holds is False]

    def test_a_good_run_passes(self):
        self.assertEqual(self.failed_rows(), [])

    def test_a_drop_of_a_harmless_client_fails(self):
        self.around["events"].append({"address": "127.0.0.1:50000", "action": "dropped"})
        self.assertEqual(self.failed_rows(), ["watchdog: others dropped"])

    def test_a_watchdog_that_misses_a_client_or_had_none_to_drop_fails(self):
        self.around["offenders_dropped"].pop()
        self.assertEqual(self.failed_rows(), ["watchdog: dropped of those it must"])
        self.around.update(offenders=[], offenders_dropped=[], events=[])
        self.assertEqual(self.failed_rows(), ["watchdog: dropped of those it must"])
        self.assertEqual(self.failed_rows(ended_early=True), [])

    def test_a_warning_of_the_watchdog_and_a_client_that_could_not_be_tried_fail(self):
        for change in ({"watchdog_said": ["v9_rtmp_ctl: warning"]}, {"problem": "OSError()"}):
            self.around = {**good_around(), **change}
            self.assertEqual(self.failed_rows(), ["watchdog: other lines, problems"])

    def test_a_failed_scrape_or_look_fails_and_so_does_a_run_without_scrapes(self):
        for change, row in (({"scrapes_failed": 1}, "Prometheus: scrapes that failed"),
                            ({"scrapes": 0}, "Prometheus: scrapes that failed"),
                            ({"polls_failed": 1}, "serve: failed polls"),
                            ({"complaints": ["a policy was violated"]}, "the browser's complaints")):
            self.around = {**good_around(), **change}
            self.assertEqual(self.failed_rows(), [row])

    def test_a_page_that_grows_fails(self):
        for what in ("elements", "heap_kib"):
            self.around = good_around()
            self.around["page"][-1][what] *= 1.5
            self.assertEqual(self.failed_rows(), ["the page in the browser"])

    def test_memory_descriptors_or_threads_that_rise_fail(self):
        for column, rise, row in (("serve_rss_kib", 150, "serve: memory slope"),
                                  ("watchdog_rss_kib", 150, "watchdog: memory slope"),
                                  ("serve_descriptors", 0.1, "serve: descriptors, median of each half"),
                                  ("watchdog_threads", 0.1, "watchdog: threads, median of each half")):
            self.samples = good_around_samples()
            for sample in self.samples:
                sample[column] += rise * sample["seconds"] / 60
            self.assertEqual(self.failed_rows(), [row])


class SoakReportProgram(unittest.TestCase):
    @staticmethod
    def write_samples(path, samples):
        lines = [",".join(samples[0])] + [",".join(str(value) for value in sample.values()) for sample in samples]
        path.write_text("\n".join(lines) + "\n", encoding="utf-8")

    def run_program(self, totals, log="", around=None):
        """Returns exit status and output for a directory with these totals and server messages."""
        with tempfile.TemporaryDirectory() as name:
            path = pathlib.Path(name)
            self.write_samples(path / "samples.csv", good_samples())
            (path / "server.log").write_text(log, encoding="utf-8")
            if totals:
                (path / "totals.json").write_text(json.dumps(totals), encoding="utf-8")
            if around:
                self.write_samples(path / "around.csv", good_around_samples())
                (path / "around.json").write_text(json.dumps(around), encoding="utf-8")
            with contextlib.redirect_stdout(io.StringIO()) as out, contextlib.redirect_stderr(out):
                status = soak_report.main([name])
            if totals:
                self.assertIn((path / "report.txt").read_text(encoding="utf-8"), out.getvalue())
            picture = path / "soak.png"
            self.assertEqual(picture.exists(), "picture: " in out.getvalue())
            if importlib.util.find_spec("matplotlib"):
                self.assertEqual(picture.exists(), bool(totals))
            return status, out.getvalue()

    def test_the_exit_status_and_the_table_show_whether_every_limit_holds(self):
        status, output = self.run_program(good_totals())
        self.assertEqual(status, 0)
        self.assertNotIn("FAILED", output)
        status, output = self.run_program({**good_totals(), "lost": 7})
        self.assertEqual(status, 1)
        self.assertRegex(output, r"frames lost +7 +0 +FAILED")

    def test_what_ran_around_the_load_is_judged_too(self):
        status, output = self.run_program(good_totals(), around=good_around())
        self.assertEqual(status, 0)
        self.assertRegex(output, r"watchdog: dropped of those it must +2 of 2 ")
        status, output = self.run_program(good_totals(), around={**good_around(), "polls_failed": 3})
        self.assertEqual(status, 1)
        self.assertRegex(output, r"serve: failed polls +3 +0 +FAILED")

    def test_a_sanitizer_report_of_the_server_is_shown(self):
        report = "WARNING: ThreadSanitizer: data race (pid=1)"
        status, output = self.run_program(good_totals(), f"Accepted connection\n{report}\nDropping connection\n")
        self.assertEqual(status, 1)
        self.assertIn(f"the server: {report}\n", output)

    def test_without_anything_to_judge_the_exit_status_says_so(self):
        status, output = self.run_program(None)
        self.assertEqual(status, 2)
        self.assertIn("nothing to judge", output)


if __name__ == "__main__":
    unittest.main()
