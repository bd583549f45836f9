#!/usr/bin/env python3
"""Metrics with Prometheus' own tools: a real scrape, the shipped alerts, and the shipped dashboard.

    prometheus_test.py --programs DIRECTORY [TEST...]
"""
import json
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

from programs import ListingServer, Prometheus, Serve, line, play, publish, run_tests, start_server, wait_for

PACKAGING = pathlib.Path(__file__).resolve().parents[3] / "packaging"
RULES = PACKAGING / "prometheus" / "v9_rtmp.rules.yml"
RULE_TESTS = PACKAGING / "prometheus" / "v9_rtmp.rules.test.yml"
DASHBOARD = PACKAGING / "grafana" / "v9_rtmp.json"
METRIC = re.compile(r"\bv9_rtmp_[a-z0-9_]+")
# As the watchdog writes it.
STATISTICS = {"version": 1, "updated_unix_seconds": 1760000000, "running": True, "looks": 5, "failed_looks": 0, "rules": {
    rule: {"limit": 1, "drops": 2, "misses": 1, "left": 0}
    for rule in ("long-name", "origin", "unnamed", "contested", "silent", "stalled", "behind", "age")}}


def promtool(*arguments, **options):
    return subprocess.run(["promtool", *arguments], capture_output=True, text=True, timeout=120, **options)


class PrometheusTest(unittest.TestCase):
    def setUp(self):
        self.directory = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.directory)
        (self.directory / "watchdog.json").write_text(json.dumps(STATISTICS))

    def keep(self, process):
        self.addCleanup(process.stop)
        return process

    def serve(self, **options):
        return self.keep(Serve("--watchdog-state", str(self.directory), **options))

    def start_prometheus(self, serve):
        return self.keep(Prometheus(self.directory, serve, [RULES]))

    def test_prometheus_scrapes_what_flows_and_alerts_when_the_server_stops(self):
        server = self.keep(start_server())
        serve = self.serve()
        prometheus = self.start_prometheus(serve)
        self.keep(publish("cam1", rate="300k"))
        self.keep(play("cam1"))
        rate = wait_for("a rate of cam1", lambda: prometheus.query('rate(v9_rtmp_stream_sent_bytes_total{stream="cam1"}[10s]) > 10000'))
        self.assertEqual(1, len(rate))
        self.assertEqual([1], list(prometheus.query("up").values()))
        self.assertEqual([1], list(prometheus.query("v9_rtmp_up").values()))
        self.assertEqual([], list(prometheus.query('scrape_samples_scraped == 0')))
        self.assertEqual([2], list(prometheus.query('v9_rtmp_watchdog_drops_total{rule="stalled"}').values()))
        server.stop()
        wait_for("the alert is pending", lambda: prometheus.query('ALERTS{alertname="RtmpServerDown"}'))

    def test_the_metrics_and_the_alerts_pass_promtool(self):
        server = self.keep(ListingServer([line(0, "cam1", "publish", 3000, 10 ** 6), line(1, "cam1", "play", 10 ** 6, 3000)]))
        serve = self.serve(control_socket=server.path)
        checked = promtool("check", "metrics", input=serve.ask("/metrics").body)
        self.assertEqual((0, ""), (checked.returncode, checked.stdout + checked.stderr))
        for arguments in (("check", "rules", str(RULES)), ("test", "rules", RULE_TESTS.name)):
            checked = promtool(*arguments, cwd=RULE_TESTS.parent)
            self.assertEqual(0, checked.returncode, checked.stdout + checked.stderr)

    def test_alerts_and_dashboard_use_only_existing_metrics(self):
        server = self.keep(ListingServer([line(0, "cam1", "publish", 3000, 10 ** 6)]))
        text = self.serve(control_socket=server.path).ask("/metrics").body
        there = set(re.findall(r"^# TYPE (\S+)", text, re.MULTILINE))
        self.assertGreater(len(there), 20)
        dashboard = json.loads(DASHBOARD.read_text())
        expressions = [target["expr"] for panel in dashboard["panels"] for target in panel["targets"]]
        self.assertGreater(len(expressions), 20)
        asked = " ".join(variable["query"]["query"] for variable in dashboard["templating"]["list"]
                         if variable["type"] == "query")
        alerts = " ".join(re.findall(r"^ *expr: (.*)", RULES.read_text(), re.MULTILINE))
        for where, used in (("dashboard", asked + " ".join(expressions)), ("alerts", alerts)):
            self.assertTrue(METRIC.search(used), where)
            self.assertEqual(set(), set(METRIC.findall(used)) - there, where)
        self.assertEqual(set(), there - set(METRIC.findall(" ".join(expressions))), "not on the dashboard")
        for expression in expressions:
            plain = expression.replace("$__rate_interval", "1m").replace("$instance", ".+")
            self.assertTrue(plain.count("(") == plain.count(")") and plain.count("{") == plain.count("}"), plain)

    def test_every_expression_of_the_dashboard_is_understood(self):
        server = self.keep(ListingServer([line(0, "cam1", "publish", 3000, 10 ** 6)]))
        serve = self.serve(control_socket=server.path)
        prometheus = self.start_prometheus(serve)
        wait_for("a scrape", lambda: prometheus.query("v9_rtmp_up"))
        for panel in json.loads(DASHBOARD.read_text())["panels"]:
            for target in panel["targets"]:
                plain = target["expr"].replace("$__rate_interval", "10s").replace("$instance", ".+")
                self.assertTrue(wait_for(plain, lambda: prometheus.query(plain)), plain)

    def test_untrusted_names_make_a_bounded_number_of_series(self):
        server = self.keep(ListingServer([]))
        serve = self.serve(control_socket=server.path)
        for turn in range(6):
            server.write([line(i, f"name_{turn}_{i}", "publish", 3000, 10 ** 6) for i in range(128)])
            wait_for("the next names", lambda: any(c["stream"] == f"name_{turn}_0" for c in serve.status_json()["connections"]))
        text = serve.ask("/metrics").body
        names = set(re.findall(r'stream="([^"]*)"', text))
        self.assertEqual(65, len(names))
        self.assertIn("(other)", names)


if __name__ == "__main__":
    run_tests(__file__)
