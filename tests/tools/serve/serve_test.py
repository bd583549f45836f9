#!/usr/bin/env python3
"""What v9_rtmp_ctl serve and metrics answer about the real server.

    serve_test.py --programs DIRECTORY [TEST...]
"""
import os
import pathlib
import shutil
import socket
import subprocess
import tempfile
import threading
import time
import unittest

from programs import (TIME_SCALE, ListingServer, Process, Serve, line, play, program, publish, run_tests, start_server, wait_for)

TRICKLERS = 200
TOKEN = "0123456789abcdef"


def write_token(directory):
    path = os.path.join(directory, "token")
    with open(os.open(path, os.O_WRONLY | os.O_CREAT, 0o600), "w", encoding="ascii") as file:
        file.write(TOKEN + "\n")
    return path


class ServeTest(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.directory)
        self.server = self.keep(start_server())

    def keep(self, process):
        self.addCleanup(process.stop)
        return process

    def serve(self, *options):
        return self.keep(Serve(*options))

    def test_it_shows_publishers_and_players(self):
        serve = self.serve()
        self.keep(publish("cam1"))
        wait_for("the publisher", lambda: serve.status_json()["streams"])
        self.keep(play("cam1"))
        with socket.create_connection(("127.0.0.1", 1935)):
            status = wait_for("publisher, player and one more", lambda: (
                lambda found: found if len(found["connections"]) == 3 and found["streams"][0]["players"] == 1 and
                found["streams"][0]["bytes_out_per_second"] else None)(serve.status_json()))
            self.assertEqual(("cam1", "live", 160, 120), tuple(status["streams"][0][name] for name in
                                                              ("stream", "state", "width", "height")))
            self.assertEqual({"publish", "play", None}, {c["mode"] for c in status["connections"]})
            self.assertEqual(1, serve.metric('v9_rtmp_connections{mode="play"}'))
            self.assertEqual(1, serve.metric('v9_rtmp_streams{state="live"}'))
            self.assertEqual(self.server.status("Threads"), serve.metric("v9_rtmp_server_threads"))
            self.assertEqual(self.server.descriptors(), serve.metric("v9_rtmp_server_open_fds"))
            self.assertGreater(serve.metric("v9_rtmp_server_resident_memory_bytes"), 500000)
            page = serve.ask("/").body
            self.assertIn('<td class="name">cam1</td><td>publish</td>', page)

    def test_counters_survive_a_reconnect(self):
        serve = self.serve()
        name = 'v9_rtmp_stream_received_bytes_total{stream="cam1"}'
        publisher = publish("cam1", rate="800k")
        try:
            first = wait_for("its bytes", lambda: serve.metric(name))
        finally:
            publisher.stop()
        wait_for("it is gone", lambda: not serve.status_json()["connections"])
        self.keep(publish("cam1", rate="800k"))
        wait_for("more bytes", lambda: serve.metric(name) > first)

    def test_a_server_that_stops_is_reported_and_one_that_starts_is_found(self):
        serve = self.serve()
        self.assertEqual((200, "ok\n"), (lambda r: (r.status, r.body))(serve.ask("/healthz")))
        self.server.stop()
        wait_for("it is sick", lambda: serve.ask("/healthz").status == 503)
        self.assertEqual(0, serve.metric("v9_rtmp_up"))
        self.assertFalse(serve.status_json()["running"])
        wait_for("the reason", lambda: "there is no socket" in serve.status_json()["message"])
        self.keep(start_server())
        wait_for("it is well", lambda: serve.ask("/healthz").status == 200)
        self.assertEqual(1, serve.metric("v9_rtmp_up"))

    def test_a_server_that_stands_still_does_not_block_the_pages(self):
        serve = self.serve()
        self.server.popen.send_signal(19)
        try:
            wait_for("it is sick", lambda: serve.ask("/healthz").status == 503)
            begin = time.monotonic()
            self.assertEqual(0, serve.metric("v9_rtmp_up"))
            self.assertLess(time.monotonic() - begin, TIME_SCALE)
        finally:
            self.server.popen.send_signal(18)
        wait_for("it is well", lambda: serve.ask("/healthz").status == 200)

    def test_two_hundred_slow_clients_delay_no_other(self):
        serve = self.serve()
        stop = threading.Event()
        sockets = []
        counts = {"sent": 0}

        def trickle():
            while not stop.is_set():
                for i, (client, left) in enumerate(sockets):
                    try:
                        client.send(left[:1])
                        counts["sent"] += 1
                        sockets[i] = (client, left[1:] or b"a")
                    except OSError:  # Disconnected: the next one takes its place.
                        client.close()
                        sockets[i] = (socket.create_connection(("127.0.0.1", serve.port)), b"GET /metrics HTTP/1.1\r\nX: ")
                stop.wait(0.5)

        for _ in range(TRICKLERS):
            sockets.append((socket.create_connection(("127.0.0.1", serve.port)), b"GET /metrics HTTP/1.1\r\nX: "))
        thread = threading.Thread(target=trickle)
        thread.start()
        try:
            slowest = 0
            for _ in range(40):
                begin = time.monotonic()
                self.assertEqual(200, serve.ask("/metrics").status)
                slowest = max(slowest, time.monotonic() - begin)
                time.sleep(0.2)
            self.assertGreater(serve.descriptors(), TRICKLERS)
        finally:
            stop.set()
            thread.join()
            for client, _ in sockets:
                client.close()
        print(f"slowest answer beside {TRICKLERS} trickling clients: {slowest * 1000:.0f} ms")
        self.assertGreater(counts["sent"], 1000)
        self.assertLess(slowest, TIME_SCALE)
        wait_for("they are given up", lambda: serve.descriptors() < 20)

    def test_a_drop_with_the_token_ends_the_connection_that_is_meant(self):
        serve = self.serve("--allow-drop", "--token-file", write_token(self.directory))
        with socket.create_connection(("127.0.0.1", 1935)) as client:
            shown = wait_for("the client", lambda: serve.status_json()["connections"])[0]
            self.assertTrue(serve.status_json()["allows_drop"])
            own = {"Origin": serve.url.rstrip("/"), "Authorization": "Bearer " + TOKEN}
            path = f"/drop?id={shown['id']}&address="
            other = serve.ask(path + "203.0.113.7:1", "POST", **own)
            self.assertEqual(409, other.status)
            self.assertEqual(403, serve.ask(path + shown["address"], "POST", **{**own, "Origin": "http://evil.example"}).status)
            self.assertEqual(403, serve.ask(path + shown["address"], "POST", **{**own, "Authorization": "Bearer x"}).status)
            self.assertEqual(1, len(serve.status_json()["connections"]))
            self.assertEqual((200, "dropped\n"), (lambda r: (r.status, r.body))(serve.ask(path + shown["address"], "POST", **own)))
            client.settimeout(20)
            self.assertEqual(b"", client.recv(1))

    def test_a_drop_is_off_unless_allowed(self):
        serve = self.serve()
        self.assertFalse(serve.status_json()["allows_drop"])
        self.assertEqual(403, serve.ask("/drop?id=0&address=x", "POST", Origin=serve.url.rstrip("/"),
                                        Authorization="Bearer ").status)

    def test_an_unknown_host_is_refused(self):
        serve = self.serve("--host", "relay.example")
        self.assertEqual(421, serve.ask("/connections.json", Host="evil.example").status)
        self.assertEqual(200, serve.ask("/connections.json", Host="relay.example").status)

    def test_a_port_that_is_taken_is_reported(self):
        first = self.serve()
        second = subprocess.run([program("v9_rtmp_ctl"), "serve", "--listen", f"127.0.0.1:{first.port}"],
                                capture_output=True, text=True, timeout=60)
        self.assertEqual(1, second.returncode)
        self.assertIn("Address already in use", second.stderr)

    def test_the_tool_says_what_to_install_where_serve_is_missing(self):
        alone = shutil.copy(program("v9_rtmp_ctl"), self.directory)
        run = subprocess.run([alone, "serve"], capture_output=True, text=True, timeout=60)
        self.assertEqual(1, run.returncode)
        self.assertIn("in a separate package", run.stderr)


class MetricsTest(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.directory)
        self.file = os.path.join(self.directory, "v9.prom")

    def run_metrics(self, *options):
        return subprocess.run([program("v9_rtmp_ctl"), "metrics", *options], capture_output=True, text=True, timeout=60)

    def check(self, text):
        checked = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, text=True, timeout=60)
        self.assertEqual((0, ""), (checked.returncode, checked.stdout + checked.stderr))

    def test_a_single_poll_is_printed(self):
        server = start_server()
        try:
            with socket.create_connection(("127.0.0.1", 1935)):
                run = wait_for("the client", lambda: (lambda r: r if 'mode="none"} 1' in r.stdout else None)(self.run_metrics()))
            self.assertEqual((0, ""), (run.returncode, run.stderr))
            self.check(run.stdout)
        finally:
            server.stop()

    def test_without_a_server_they_say_so_and_the_exit_status_too(self):
        run = self.run_metrics("-o", self.file)
        self.assertEqual(3, run.returncode)
        self.assertIn("there is no socket", run.stderr)
        self.assertIn("v9_rtmp_up 0\n", pathlib.Path(self.file).read_text())

    def test_a_file_is_replaced_whole_at_the_interval(self):
        server = ListingServer([line(0, "cam1", "publish", 3000, 100000)])
        self.addCleanup(server.stop)
        writer = Process(program("v9_rtmp_ctl"), "--socket", server.path, "metrics", "-o", self.file, "--interval", "0.1")
        self.addCleanup(writer.stop)
        wait_for("the file", lambda: os.path.exists(self.file))
        seen = set()
        for received in range(100000, 1000000, 50000):
            server.write([line(0, "cam1", "publish", 3000, received)])
            wait_for("the new value", lambda: f'received_bytes_total{{stream="cam1"}} {received - 100000}\n' in
                     pathlib.Path(self.file).read_text())
            text = pathlib.Path(self.file).read_text()
            self.assertTrue(text.startswith("# HELP v9_rtmp_up ") and text.endswith("\n"))
            seen.add(os.stat(self.file).st_ino)
        self.assertGreater(len(seen), 1)
        self.check(text)
        self.assertEqual(0o644, os.stat(self.file).st_mode & 0o777)

    def test_a_writer_reports_once_that_the_server_does_not_answer_and_once_that_it_does(self):
        writer = Process(program("v9_rtmp_ctl"), "metrics", "-o", self.file, "--interval", "0.1")
        self.addCleanup(writer.stop)
        writer.wait_for_output("there is no socket")
        # Several polls must not repeat the line.
        written = {os.stat(self.file).st_ino}
        wait_for("more polls", lambda: written.add(os.stat(self.file).st_ino) or len(written) > 1)
        server = start_server()
        self.addCleanup(server.stop)
        lines = writer.wait_for_output("v9_rtmp_ctl: the server answers.").splitlines()
        self.assertEqual(len(set(lines)), len(lines), lines)

    def test_hostile_names_pass_the_check(self):
        names = [b'a"} 1\nevil 9', b"\xff\xfe", b"\\", b"\xe2\x80\xaegpj", b"x" * 100000, b"{}", b" ", b"(other)"]
        server = ListingServer([line(i, name, "publish", 3000, 10 ** 6) for i, name in enumerate(names)])
        self.addCleanup(server.stop)
        writer = Process(program("v9_rtmp_ctl"), "--socket", server.path, "metrics", "-o", self.file, "--interval", "0.1")
        self.addCleanup(writer.stop)
        wait_for("the file", lambda: os.path.exists(self.file))
        text = pathlib.Path(self.file).read_text()
        self.check(text)
        self.assertIn('{stream="a\\"} 1\\\\x0Aevil 9"}', text)


if __name__ == "__main__":
    run_tests(__file__)
