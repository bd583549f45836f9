"""Starts and stops the programs of the scripts: the server, encoders and players."""

import contextlib
import fcntl
import os
import pwd
import re
import signal
import socket
import struct
import subprocess
import time

RTMP_PORT = 1935
POLL_S = 0.02
SECOND_SIGNAL_S = 0.3
LISTEN_LIMIT_S = 5
STOP_LIMIT_S = 10


class RunError(Exception):
    """The run cannot continue. log is the file that says why, if there is one."""

    def __init__(self, text, log=None):
        super().__init__(text)
        self.log = log


class Stopped(BaseException):
    """A signal told the script to stop. Not an Exception, so that no other handler catches it."""

    def __init__(self, number):
        super().__init__(number)
        self.status = 128 + number


def raise_stopped_on_signals():
    """Makes SIGINT, SIGTERM and SIGHUP raise Stopped in the main thread, once."""
    numbers = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)

    def stop(number, _):
        for ignored in numbers:
            signal.signal(ignored, signal.SIG_IGN)
        raise Stopped(number)

    for number in numbers:
        signal.signal(number, stop)


def say(text):
    print(f"==> {text}", flush=True)


def wait_until(condition, limit_s):
    """Returns true as soon as the condition holds, false if it does not in time."""
    deadline = time.monotonic() + limit_s
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(POLL_S)
    return True


def wait_until_unchanged(measure, unchanged_s, limit_s):
    """Waits until measure() has returned the same value for this long, or until the limit."""
    last, change = None, time.monotonic()
    deadline = change + limit_s
    while time.monotonic() < min(change + unchanged_s, deadline):
        value = measure()
        if value != last:
            last, change = value, time.monotonic()
        time.sleep(0.1)


def text_of(path):
    with open(path, encoding="utf-8", errors="replace") as file:
        return file.read()


def last_lines(path, lines):
    return text_of(path).replace("\r", "\n").splitlines()[-lines:]


def set_up_namespaces(own_network):
    """Sets up the process's private namespaces: an empty /run and, with its own network, a loopback that is up."""
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/run"], check=True)
    if own_network:
        get_flags, set_flags, is_up = 0x8913, 0x8914, 1
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
            flags, = struct.unpack("16xh14x", fcntl.ioctl(any_socket, get_flags, struct.pack("16s16x", b"lo")))
            fcntl.ioctl(any_socket, set_flags, struct.pack("16sh14x", b"lo", flags | is_up))


def port_is_taken():
    """Looks the port up instead of connecting, because the server would print a line about the client."""
    listens = re.compile(rf"^ *\d+: [0-9A-F]+:{RTMP_PORT:04X} [0-9A-F]+:0000 0A ", re.MULTILINE)
    return any(listens.search(text_of(f"/proc/net/{table}")) for table in ("tcp", "tcp6")
               if os.path.exists(f"/proc/net/{table}"))


class Processes:
    """The processes that run in a directory, each with its own log. All are stopped together with this object, and
    by the kernel if the script itself is killed."""

    def __init__(self, directory):
        self.directory = directory
        self.by_name = {}
        os.makedirs(directory, exist_ok=True)

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        """The last one started ends first, so that players and encoders end before the server."""
        for name in reversed(list(self.by_name)):
            self.end(name, self.by_name[name].end_signal, 5)

    def path(self, name):
        return os.path.join(self.directory, name)

    def log(self, name):
        return self.path(name + ".log")

    def start(self, name, arguments, *, environment=None, user=None, stdin=subprocess.DEVNULL, stdout=None,
              end_signal=signal.SIGKILL):
        """Starts a program in its own session: Ctrl-C goes to the script, which stops the others in order."""
        identity = {}
        if user is not None:
            entry = pwd.getpwnam(user)
            identity = {"user": entry.pw_uid, "group": entry.pw_gid, "extra_groups": []}
        with open(self.log(name), "w", encoding="utf-8") as log:
            process = subprocess.Popen(  # pylint: disable=consider-using-with
                ["setpriv", "--pdeathsig", "TERM", "--", *arguments], stdin=stdin, stdout=stdout or log,
                stderr=log, env={**os.environ, "HOME": self.directory, **(environment or {})}, cwd=self.directory,
                start_new_session=True, **identity)
        process.end_signal = end_signal
        self.by_name[name] = process
        return process

    def runs(self, name):
        return self.by_name[name].poll() is None

    def status(self, name):
        """Returns the exit status as in a shell; none while the process runs."""
        status = self.by_name[name].poll()
        return 128 - status if status is not None and status < 0 else status

    def end(self, name, number, limit_s):
        """Ends a process and returns its exit status. It gets the signal twice, because ffmpeg continues to wait
        for packets after the first, and is killed if it does not end in time."""
        process = self.by_name[name]
        for wait_s in (min(SECOND_SIGNAL_S, limit_s), limit_s - SECOND_SIGNAL_S):
            process.send_signal(number)  # Does nothing if the process has ended.
            with contextlib.suppress(subprocess.TimeoutExpired):
                process.wait(max(0.0, wait_s))
                return self.status(name)
        say(f"{name} does not end: killing it")
        process.kill()
        process.wait()
        return self.status(name)


class Server:
    """The server as one of the processes."""

    def __init__(self, processes, program, options=()):
        self.processes = processes
        self.log = processes.log("server")
        processes.start("server", [program, *options], end_signal=signal.SIGTERM)
        if not wait_until(lambda: port_is_taken() or not processes.runs("server"), LISTEN_LIMIT_S):
            raise RunError(f"the server does not listen on port {RTMP_PORT}", self.log)
        self.require()

    def require(self):
        if not self.processes.runs("server"):
            raise RunError(f"the server ended by itself, with status {self.processes.status('server')}", self.log)

    def count(self, begin):
        """Returns how many of its lines have this prefix."""
        return sum(line.startswith(begin) for line in text_of(self.log).splitlines())

    def says(self, begin, times, limit_s, needs="server"):
        """Waits until this many of its lines have this prefix. Gives up if the process needed for this has ended."""
        wait_until(lambda: self.count(begin) >= times or not self.processes.runs(needs)
                   or not self.processes.runs("server"), limit_s)
        return self.count(begin) >= times

    def stop(self):
        """Returns what is wrong with its exit, or none."""
        by_itself = not self.processes.runs("server")
        status = self.processes.end("server", signal.SIGTERM, STOP_LIMIT_S)
        if not by_itself and status == 0:
            return None
        return f"the server ended {'by itself, ' if by_itself else ''}with status {status}, not 0"
