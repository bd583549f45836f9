#!/usr/bin/env python3
"""The status page in a real browser, headless Chromium.

    page_test.py --programs DIRECTORY [TEST...]

V9_PICTURES names a directory for pictures of the page. V9_PAGE_SECONDS is the length of the long look, 5 if not given.
"""
import os
import shutil
import socket
import tempfile
import threading
import time
import unittest

from browser import Browser
from programs import (ListingServer, Serve, line, play, publish, run_tests, start_server, wait_for)
from serve_test import TOKEN, write_token

VIEWERS = 10
MAX_CPU = 0.02
HOSTILE = ["<script>window.hacked=1</script>", "<img src=x onerror=window.hacked=1>", "\"><b id=hacked>", "javascript:hacked",
           "\u202egpj.exe", "a" * 5000, "{{nonce}}", "]]>", "&lt;b&gt;", "Z\u0353\u036b\u0353\u0324\u036a\u0360" * 20,
           "\U0001f39e K\u00fcche \u98a8", "x\ny\tz", "__proto__", "constructor"]


def hostile_lines(received):
    names = [name.encode() for name in HOSTILE] + [b"\xff\xfe", b"\xff\xfd"]
    return [line(i, name, "publish" if i % 2 else "play", received, received, f"203.0.113.{i}:50000", "640x360")
            for i, name in enumerate(names)]


class PageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.browser = Browser()

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()

    def setUp(self):
        self.browser.look_as(1280, 800, "light")
        self.browser.complaints()  # Discards those of another test.

    def keep(self, process):
        self.addCleanup(process.stop)
        return process

    def open(self, serve):
        self.browser.open(serve.url)
        self.wait_for_text("running")

    def text(self):
        return self.browser.run("return document.body.innerText").replace("\u00a0", " ")

    def wait_for_text(self, *parts):
        return wait_for(parts, lambda: (lambda text: text if all(part in text for part in parts) else None)(self.text()))

    def picture(self, name):
        if os.environ.get("V9_PICTURES"):
            self.browser.picture(os.path.join(os.environ["V9_PICTURES"], name + ".png"))

    def pictures(self, name):
        for width, height in ((1280, 800), (390, 844)):
            for scheme in ("light", "dark"):
                self.browser.look_as(width, height, scheme)
                self.picture(f"{name}_{width}_{scheme}")
        self.browser.look_as(1280, 800, "light")

    def test_it_shows_streams_connections_and_rates_live(self):
        self.keep(start_server())
        serve = self.keep(Serve())
        self.open(serve)
        self.wait_for_text("of 128 slots")
        self.keep(publish("cam1", "320x240"))
        self.wait_for_text("cam1", "320×240", "live")
        player = self.keep(play("cam1"))
        self.keep(play("lobby"))
        with socket.create_connection(("127.0.0.1", 1935)):
            self.wait_for_text("1 player", "waiting for a publisher", "not chosen yet", "of 128 slots")
            wait_for("a rate", lambda: "kbit/s" in self.browser.run("return document.getElementById('total_out').textContent"))
            wait_for("a plot", lambda: self.browser.run("return document.querySelector('.stream .in .line').getAttribute('d')"))
            rows = self.browser.run("return document.querySelectorAll('#connections tbody tr').length")
            self.assertEqual(4, rows)
            self.pictures("streams")
        player.popen.kill()
        wait_for("a row less", lambda: self.browser.run("return document.querySelectorAll('#connections tbody tr').length") == 2)
        self.assertEqual([], self.browser.complaints())

    def test_it_fetches_nothing_from_elsewhere(self):
        server = self.keep(ListingServer([line(0, "cam1", "publish", 1, 1)]))
        serve = self.keep(Serve(control_socket=server.path))
        self.open(serve)
        names = self.browser.run("return performance.getEntriesByType('resource').map(entry => entry.name)")
        self.assertTrue(names)
        self.assertEqual({serve.url + "connections.json"}, set(names))

    def test_untrusted_names_are_harmless(self):
        server = self.keep(ListingServer(hostile_lines(1000)))
        serve = self.keep(Serve(control_socket=server.path))
        self.open(serve)
        self.wait_for_text(HOSTILE[0], HOSTILE[1], HOSTILE[2], HOSTILE[6], HOSTILE[8], HOSTILE[10], "\\u202egpj.exe", "x\\u000ay\\u0009z")
        for received in range(2000, 6000, 1000):
            server.write(hostile_lines(received))
            time.sleep(1)
        count = len(hostile_lines(0))
        self.assertIsNone(self.browser.run("return window.hacked"))
        self.assertEqual([1, 0, 0, 0], self.browser.run(
            "return ['script', 'img', 'b[id]', 'a'].map(s => document.querySelectorAll(s).length)"))
        self.assertEqual([count, count], self.browser.run(
            "return ['#connections tbody tr', '.stream'].map(s => document.querySelectorAll(s).length)"))
        for width in (1280, 390):
            self.browser.look_as(width, 800, "light")
            self.assertLessEqual(self.browser.run("return document.documentElement.scrollWidth"), width)
        self.pictures("hostile")
        self.assertEqual([], self.browser.complaints())

    def test_the_policy_blocks_injected_scripts(self):
        server = self.keep(ListingServer([]))
        self.open(self.keep(Serve(control_socket=server.path)))
        self.browser.run("""const made = document.createElement('script'); made.textContent = 'window.hacked = 1';
                            document.body.append(made); document.body.setAttribute('onclick', 'window.hacked = 2');
                            document.body.click()""")
        self.assertIsNone(self.browser.run("return window.hacked"))
        self.assertTrue(any("Content Security Policy" in text for text in self.browser.complaints()))

    def test_it_fits_a_phone_and_is_dark_where_that_is_preferred(self):
        server = self.keep(ListingServer([line(i, f"cam{i % 7}", "play" if i > 6 else "publish", 10 ** i, 10 ** 6)
                                          for i in range(12)]))
        self.open(self.keep(Serve(control_socket=server.path)))
        self.wait_for_text("cam6")
        background = "return getComputedStyle(document.body).backgroundColor"
        self.browser.look_as(390, 844, "light")
        self.assertLessEqual(self.browser.run("return document.documentElement.scrollWidth"), 390)
        light = self.browser.run(background)
        self.browser.look_as(390, 844, "dark")
        dark = self.browser.run(background)
        brightness = [sum(int(part) for part in color[4:-1].split(",")) for color in (light, dark)]
        self.assertGreater(brightness[0], 600)
        self.assertLess(brightness[1], 150)

    def test_without_script_there_is_a_table(self):
        server = self.keep(ListingServer(hostile_lines(1000)))
        serve = self.keep(Serve(control_socket=server.path))
        self.browser.devtools("Emulation.setScriptExecutionDisabled", value=True)
        self.addCleanup(self.browser.devtools, "Emulation.setScriptExecutionDisabled", value=False)
        self.browser.open(serve.url)
        self.assertIn("16 of 128 slots are used.", self.text())
        self.assertEqual(16, self.browser.run("return document.querySelectorAll('noscript tbody tr').length"))
        self.picture("without_script")

    def test_it_shows_warnings(self):
        def lines(second):
            return [line(0, "cam1", "publish", 1, 100000 * second), line(1, "cam1", "play", 100000 * second, 1, "198.51.100.1:1"),
                    line(2, "cam1", "play", min(second, 8) * 100000, 1, "198.51.100.2:2"),
                    line(3, "garden", "publish", 1, 5000, "198.51.100.3:3"),
                    line(4, "cam1", "play", 20000 * second, 1, "198.51.100.4:4")]
        server = self.keep(ListingServer(lines(1)))
        self.open(self.keep(Serve(control_socket=server.path)))
        expected = ["Stream garden: the publisher has sent nothing for", "1 player is stalled", "stalled for",
                    "1 player is behind its stream", "s behind"]
        for second in range(2, 60):
            server.write(lines(second))
            time.sleep(1)
            text = self.text()
            if all(part in text for part in expected):
                break
        else:
            self.fail(text)
        self.pictures("notes")

    def test_it_shows_players_near_the_timestamp_limit(self):
        server = self.keep(ListingServer([line(0, "cam1", "publish", 1, 1), line(1, "cam1", "play", 1, 1),
                                          line(2, "cam1", "play", 1, 1)]))
        self.open(self.keep(Serve(control_socket=server.path)))
        # What serve sends for players of this age is tested elsewhere.
        self.browser.run("""const fetch_real = window.fetch; window.fetch = async (...arguments_) => {
                                const data = await (await fetch_real(...arguments_)).json();
                                [[1, 16717], [2, 16800]].forEach(([id, age]) => Object.assign(
                                    data.connections.find(c => c.id === id), { age_seconds: age, near_limit: true }));
                                return new Response(JSON.stringify(data)); }""")
        self.wait_for_text("2 players are near or past the limit: timestamps exceed 24 bits 4 h 39 min after joining",
                           "timestamp limit in 1 min", "timestamp limit passed")

    def test_a_stopped_server_and_a_stopped_serve_are_reported(self):
        server = start_server()
        serve = Serve()
        try:
            self.open(serve)
            server.stop()
            self.wait_for_text("no answer", "here is no socket at")  # The page begins it with a capital letter.
            self.picture("no_answer")
            server = start_server()
            self.wait_for_text("running", "of 128 slots")
        finally:
            serve.stop()
            server.stop()
        self.wait_for_text("this page gets no answer")

    def test_a_drop_asks_for_the_token(self):
        directory = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, directory)
        self.keep(start_server())
        serve = self.keep(Serve("--allow-drop", "--token-file", write_token(directory)))
        with socket.create_connection(("127.0.0.1", 1935)) as client:
            self.open(serve)
            wait_for("the button", lambda: self.browser.run("return document.querySelector('#connections button') !== null"))
            self.browser.run("document.querySelector('#connections button').click()")
            self.wait_for_text("Drop connection 0, without a stream, from 127.0.0.1:")
            self.picture("drop")
            submit = """document.getElementById('token').value = arguments[0]; document.getElementById('confirm').click()"""
            self.browser.run(submit, "wrong")
            self.wait_for_text("The token is wrong.")
            self.browser.run(submit, TOKEN)
            wait_for("the dialog is closed", lambda: not self.browser.run("return document.getElementById('dialog').open"))
            client.settimeout(20)
            self.assertEqual(b"", client.recv(1))

    def test_a_drop_asks_whether_a_publisher_or_a_player_is_meant(self):
        directory = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, directory)
        server = self.keep(ListingServer([line(3, "cam1", "publish", 1, 1, "203.0.113.1:1"),
                                          line(4, "cam1", "play", 1, 1, "203.0.113.2:2"),
                                          line(5, "cam1", "", 1, 1, "203.0.113.3:3")]))
        self.open(self.keep(Serve("--allow-drop", "--token-file", write_token(directory), control_socket=server.path)))
        wait_for("the buttons", lambda: self.browser.run("return document.querySelectorAll('#connections button').length") == 3)
        questions = self.browser.run("""return [...document.querySelectorAll('#connections button')].map(button => {
                                            button.click();
                                            document.getElementById('cancel').click();
                                            return document.getElementById('question').textContent; })""")
        self.assertEqual(["Drop connection 3, a publisher of “cam1”, from 203.0.113.1:1?",
                          "Drop connection 4, a player of “cam1”, from 203.0.113.2:2?",
                          "Drop connection 5, with the stream “cam1”, from 203.0.113.3:3?"], sorted(questions))

    def test_a_page_that_stays_open_does_not_grow_and_ten_viewers_cost_little(self):
        """The CPU time of serve while ten clients poll once a second as the page does, from /proc/PID/stat."""
        seconds = int(os.environ.get("V9_PAGE_SECONDS", "5"))
        self.keep(start_server())
        serve = self.keep(Serve())
        for name in ("cam1", "garden"):
            self.keep(publish(name))
            self.keep(play(name))
        self.open(serve)
        self.wait_for_text("cam1", "garden", "of 128 slots")
        stop = threading.Event()

        def view():
            while not stop.wait(1):
                serve.ask("/connections.json", Accept_Encoding="gzip, deflate")

        viewers = [threading.Thread(target=view) for _ in range(VIEWERS - 1)]  # The browser is the tenth.
        for viewer in viewers:
            viewer.start()
        try:
            time.sleep(5)
            measure = """gc(); return [document.getElementsByTagName('*').length, performance.memory.usedJSHeapSize]"""
            nodes, heap = self.browser.run(measure)
            cpu, memory, begin = serve.cpu_s(), serve.status("VmRSS"), time.monotonic()
            time.sleep(seconds)
            used = (serve.cpu_s() - cpu) / (time.monotonic() - begin)
            nodes_then, heap_then = self.browser.run(measure)
            memory_then = serve.status("VmRSS")
        finally:
            stop.set()
            for viewer in viewers:
                viewer.join()
        print(f"{seconds} s: {100 * used:.2f} % of a core with {VIEWERS} viewers; page {nodes} to {nodes_then} elements, "
              f"{heap // 1024} to {heap_then // 1024} KiB; serve {memory} to {memory_then} KiB, {serve.descriptors()} "
              f"descriptors, {serve.status('Threads')} threads")
        self.assertLess(used, MAX_CPU)
        self.assertEqual(nodes, nodes_then)
        self.assertLess(heap_then, heap * 1.2 + 500000)
        self.assertLess(memory_then, memory + 1024)


if __name__ == "__main__":
    run_tests(__file__)
