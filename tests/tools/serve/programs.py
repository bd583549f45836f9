"""Runs the built programs in a network, a /run and a /proc of their own, for the tests of what serve answers.

A test script calls run_tests(): it starts itself again in new namespaces, so tests can run in parallel with each other
and with a real server, and every program that a test leaves ends with it.
"""
import fcntl
import json
import os
import pathlib
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.error
import urllib.parse
import urllib.request

INSIDE = "V9_INSIDE_NAMESPACES"
# Sanitizers make programs slow.
WAIT_S = 60
TIME_SCALE = int(os.environ.get("V9_TEST_TIME_SCALE", "1"))
SOCKET = "/run/v9_rtmp_server.socket"
DIRECT = urllib.request.build_opener(urllib.request.ProxyHandler({}))


def program(name):
    return str(pathlib.Path(os.environ["V9_PROGRAMS"]) / name)


def set_loopback_up():
    get_flags, set_flags, up = 0x8913, 0x8914, 1
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        flags, = struct.unpack("16xh14x", fcntl.ioctl(any_socket, get_flags, struct.pack("16s16x", b"lo")))
        fcntl.ioctl(any_socket, set_flags, struct.pack("16sh14x", b"lo", flags | up))


# Otherwise AddressSanitizer of GCC 12 reports false errors in a cancelled thread.
os.environ.setdefault("ASAN_OPTIONS", "use_sigaltstack=0:detect_stack_use_after_return=1")


def enter_namespaces(script):
    """Starts the script again in namespaces; returns once inside."""
    if os.environ.get(INSIDE):
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/run"], check=True)
        set_loopback_up()
        return
    user = [] if os.geteuid() == 0 else ["--map-root-user"]
    command = ["unshare", *user, "--net", "--mount", "--pid", "--fork", "--mount-proc", "--kill-child", "--",
               sys.executable, script, *sys.argv[1:]]
    os.execvpe("unshare", command, {**os.environ, INSIDE: "1"})


def run_tests(script):
    """Runs the tests of a script. Its arguments are --programs DIRECTORY, if given, and then those of unittest."""
    if sys.argv[1:2] == ["--programs"]:
        os.environ["V9_PROGRAMS"] = str(pathlib.Path(sys.argv[2]).resolve())
        del sys.argv[1:3]
    enter_namespaces(script)
    unittest.main(module="__main__", verbosity=2)


def wait_for(what, condition, seconds=WAIT_S):
    """Returns the condition's result once that is true."""
    deadline = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            raise AssertionError(f"not within {seconds} s: {what}")
        time.sleep(0.05)


class Process:
    """A program that runs until stop(), with its standard output and error in a file."""

    def __init__(self, *command, stdin=subprocess.DEVNULL):
        self.log = tempfile.TemporaryFile("w+")
        self.popen = subprocess.Popen(command, stdin=stdin, stdout=self.log, stderr=subprocess.STDOUT)

    def output(self):
        self.log.seek(0)
        return self.log.read()

    def wait_for_output(self, text):
        def look():
            found = self.output()
            if self.popen.poll() is not None and text not in found:
                raise AssertionError(f"{self.popen.args} ended with {self.popen.returncode}: {found}")
            return found if text in found else None
        return wait_for(text, look)

    def stop(self, number=signal.SIGTERM):
        if self.log.closed:
            return
        if self.popen.poll() is None:
            self.popen.send_signal(number)
            try:
                self.popen.wait(WAIT_S)
            except subprocess.TimeoutExpired:
                self.popen.kill()
                self.popen.wait()
        said = self.output()
        self.log.close()
        if "Sanitizer" in said or "runtime error:" in said:
            raise AssertionError(f"{self.popen.args}: {said}")

    def cpu_s(self):
        fields = pathlib.Path(f"/proc/{self.popen.pid}/stat").read_text().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def status(self, field):
        for line in pathlib.Path(f"/proc/{self.popen.pid}/status").read_text().splitlines():
            if line.startswith(field + ":"):
                return int(line.split()[1])
        raise AssertionError(field)

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.popen.pid}/fd"))


class Reply:
    def __init__(self, status, headers, body):
        self.status, self.headers, self.body = status, headers, body


def start_server():
    server = Process(program("v9_rtmp_server"))
    wait_for("the server listens", lambda: port_is_open(1935))
    wait_for("its control socket", lambda: os.path.exists(SOCKET))
    return server


def port_is_open(port):
    with open("/proc/net/tcp", encoding="ascii") as table:
        return any(line.split()[1].endswith(f":{port:04X}") and line.split()[3] == "0A" for line in list(table)[1:])


class Serve(Process):
    """v9_rtmp_ctl serve on a port of its own choice."""

    def __init__(self, *options, control_socket=SOCKET):
        super().__init__(program("v9_rtmp_ctl"), "--socket", control_socket, "serve", "--listen", "127.0.0.1:0", *options)
        self.url = self.wait_for_output("http://127.0.0.1:").strip().splitlines()[-1]
        self.port = int(self.url.rsplit(":", 1)[1].strip("/"))

    def ask(self, path, method="GET", **headers):
        request = urllib.request.Request(self.url + path.lstrip("/"), method=method,
                                         headers={name.replace("_", "-"): value for name, value in headers.items()})
        try:
            with DIRECT.open(request, timeout=WAIT_S) as reply:
                return Reply(reply.status, reply.headers, reply.read().decode())
        except urllib.error.HTTPError as reply:
            return Reply(reply.code, reply.headers, reply.read().decode())

    def status_json(self):
        return json.loads(self.ask("/connections.json").body)

    def metric(self, name):
        """Returns the value of a sample, named with its labels; None if there is none."""
        for line in self.ask("/metrics").body.splitlines():
            if line.startswith(name + " "):
                return float(line.rsplit(" ", 1)[1])
        return None


class Prometheus(Process):
    """A Prometheus that scrapes a serve once a second and keeps what it gets in a directory."""

    PORT = 9090

    def __init__(self, directory, serve, rules=()):
        config = pathlib.Path(directory) / "prometheus.yml"
        config.write_text(f"""
global: {{scrape_interval: 1s, evaluation_interval: 1s}}
rule_files: {json.dumps([str(path) for path in rules])}
scrape_configs: [{{job_name: rtmp, static_configs: [{{targets: ["127.0.0.1:{serve.port}"]}}]}}]
""")
        super().__init__("prometheus", f"--config.file={config}", f"--storage.tsdb.path={directory}/data",
                         f"--web.listen-address=127.0.0.1:{self.PORT}")
        self.wait_for_output("Server is ready to receive web requests.")

    def query(self, expression):
        """Returns the values that Prometheus has now, by their labels."""
        url = f"http://127.0.0.1:{self.PORT}/api/v1/query?query={urllib.parse.quote(expression)}"
        with DIRECT.open(url, timeout=10) as reply:
            result = json.load(reply)["data"]["result"]
        return {tuple(sorted(sample["metric"].items())): float(sample["value"][1]) for sample in result}


class ListingServer(Process):
    """A control server whose listing a test chooses."""

    def __init__(self, lines):
        self.directory = tempfile.mkdtemp()
        self.file = os.path.join(self.directory, "lines")
        self.write(lines)
        super().__init__(program("listing_server"), self.file, stdin=subprocess.PIPE)
        self.path = self.wait_for_output("/socket").strip()

    def write(self, lines):
        temporary = self.file + ".new"
        pathlib.Path(temporary).write_bytes(b"".join(line + b"\0" for line in lines))
        os.rename(temporary, self.file)

    def stop(self, number=signal.SIGTERM):
        self.popen.stdin.close()
        self.popen.wait(WAIT_S)
        super().stop(number)
        shutil.rmtree(self.directory)


def line(connection_id, stream, mode, sent, received, address="203.0.113.7:50000", size=""):
    name = stream if isinstance(stream, bytes) else stream.encode()
    return b"\t".join([b"%d" % connection_id, name, mode.encode(), size.encode(), b"%d" % sent, b"%d" % received,
                       address.encode()])


def publish(name, size="160x120", rate="100k"):
    return Process("ffmpeg", "-nostdin", "-loglevel", "error", "-re", "-f", "lavfi", "-i", f"testsrc2=size={size}:rate=15",
                   "-re", "-f", "lavfi", "-i", "sine", "-c:v", "libx264", "-preset", "ultrafast", "-g", "30", "-pix_fmt",
                   "yuv420p", "-b:v", rate, "-maxrate", rate, "-bufsize", rate, "-c:a", "aac", "-f", "flv",
                   f"rtmp://127.0.0.1/ombrex-live/{name}")


def play(name):
    return Process("ffmpeg", "-nostdin", "-loglevel", "error", "-i", f"rtmp://127.0.0.1/ombrex-output/{name}", "-c", "copy",
                   "-f", "null", "-")
