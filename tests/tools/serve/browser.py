"""A headless Chromium, driven through chromedriver's own protocol (W3C WebDriver), without any library."""
import base64
import json
import os
import shutil
import signal
import subprocess
import tempfile
import time
import urllib.error
import urllib.request

DIRECT = urllib.request.build_opener(urllib.request.ProxyHandler({}))
PORT = 9515


class Browser:
    def __init__(self):
        # Chromium keeps its profile and its locks there.
        self.home = tempfile.mkdtemp()
        self.driver = subprocess.Popen(["chromedriver", f"--port={PORT}"], stdout=subprocess.DEVNULL,
                                       stderr=subprocess.DEVNULL, env={**os.environ, "HOME": self.home})
        self.session = None
        deadline = time.monotonic() + 60
        while True:
            try:
                self.call("GET", "/status")
                break
            except OSError:
                if time.monotonic() > deadline:
                    raise
                time.sleep(0.1)
        options = {"args": ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-proxy-server",
                            "--hide-scrollbars", "--js-flags=--expose-gc", "--enable-precise-memory-info"]}
        wanted = {"browserName": "chrome", "goog:loggingPrefs": {"browser": "ALL"}, "goog:chromeOptions": options}
        self.session = self.call("POST", "/session", {"capabilities": {"alwaysMatch": wanted}})["sessionId"]

    def call(self, method, path, body=None):
        request = urllib.request.Request(f"http://127.0.0.1:{PORT}{path}", method=method,
                                         data=None if body is None else json.dumps(body).encode(),
                                         headers={"Content-Type": "application/json"})
        try:
            with DIRECT.open(request, timeout=120) as reply:
                return json.load(reply)["value"]
        except urllib.error.HTTPError as error:
            raise RuntimeError(f"{method} {path}: {json.load(error)['value']['message']}") from error

    def ask(self, method, path, body=None):
        return self.call(method, f"/session/{self.session}{path}", body)

    def devtools(self, command, **parameters):
        return self.ask("POST", "/goog/cdp/execute", {"cmd": command, "params": parameters})

    def open(self, url):
        self.ask("POST", "/url", {"url": url})

    def run(self, script, *arguments):
        return self.ask("POST", "/execute/sync", {"script": script, "args": list(arguments)})

    def complaints(self):
        """Returns the browser's new messages about the page and its policy, except on unanswered requests."""
        return [entry["message"] for entry in self.ask("POST", "/se/log", {"type": "browser"})
                if "net::ERR_" not in entry["message"]]

    def look_as(self, width, height, scheme):
        self.devtools("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1,
                      mobile=width < 500)
        self.devtools("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": scheme}])

    def picture(self, path):
        data = self.devtools("Page.captureScreenshot", format="png", captureBeyondViewport=True)["data"]
        with open(path, "wb") as file:
            file.write(base64.b64decode(data))

    def quit(self):
        try:
            if self.session:
                self.ask("DELETE", "")
        finally:
            self.driver.send_signal(signal.SIGTERM)
            self.driver.wait(60)
            shutil.rmtree(self.home, ignore_errors=True)
