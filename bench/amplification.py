#!/usr/bin/env python3
"""Measures the cost of a client's bytes: bytes sent back, bytes of log and memory for each byte that a client sends.

    bench/amplification.py [--programs DIRECTORY]

Starts the server in namespaces of its own for each row. Bytes are those of the TCP payload, counted by the client; the log
is the server's standard error, in a file; memory is resident, from the kernel.
"""
import argparse
import os
import pathlib
import socket
import struct
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.dont_write_bytecode = True
sys.path.insert(0, str(ROOT / "scripts"))
import processes  # noqa: E402

INSIDE = "V9_AMPLIFICATION_INSIDE"
LIMIT_S = 60
BLOCK_BYTES = 1536
SET_CHUNK_SIZE, WINDOW_SIZE, COMMAND = 1, 5, 20
CONTROL_STREAM, COMMAND_STREAM, BARRIER_STREAM = 2, 3, 5


def text(value):
    return b"\x02" + struct.pack(">H", len(value)) + value


def number(value):
    return b"\x00" + struct.pack(">d", value)


def members(*pairs):
    return b"\x03" + b"".join(struct.pack(">H", len(key)) + key + value for key, value in pairs) + b"\0\0\x09"


def nest(levels):
    """Returns nested objects. Their ends are omitted, which is allowed."""
    return b"\x03" + b"\0\0\x03" * (levels - 1)


def message(stream, kind, payload, stream_id=0):
    """Returns a message with a whole header, in one chunk."""
    return (bytes([stream]) + b"\0\0\0" + struct.pack(">I", len(payload))[1:] + bytes([kind])
            + struct.pack("<I", stream_id) + payload)


def again(stream, payload):
    """Returns a message that repeats the last header, in one byte."""
    return bytes([0xC0 | stream]) + payload


def connect(extra=b""):
    """extra replaces the object that names the application. Its end may be missing: the decoder needs none."""
    return text(b"connect") + number(1) + (members((b"app", text(b"ombrex-live"))) if not extra else extra)


class Client:
    def __init__(self):
        self.socket = socket.create_connection(("127.0.0.1", processes.RTMP_PORT))
        self.socket.settimeout(LIMIT_S)
        self.sent = self.received = 0
        self.barriers = 0

    def send(self, data):
        self.socket.sendall(data)
        self.sent += len(data)

    def receive(self, count):
        data = b""
        while len(data) < count:
            part = self.socket.recv(count - len(data))
            if not part:
                raise ConnectionError("the server closed the connection")
            data += part
        self.received += count
        return data

    def shake_hands(self):
        self.send(b"\x03" + bytes(BLOCK_BYTES))
        answer = self.receive(1 + 2 * BLOCK_BYTES)
        self.send(answer[1:1 + BLOCK_BYTES])
        self.send(message(CONTROL_STREAM, SET_CHUNK_SIZE, struct.pack(">I", 1 << 20)))
        return self

    def wait(self):
        """Waits until everything sent so far has been handled, by the reply to one more command. Neither is counted."""
        sent, self.barriers = self.sent, self.barriers + 1
        mark = struct.pack(">d", 1e6 + self.barriers)
        self.send(message(BARRIER_STREAM, COMMAND, text(b"FCPublish") + b"\0" + mark + b"\x05"))
        self.sent, window = sent, b""
        while mark not in window:
            part = self.socket.recv(65536)
            if not part:
                raise ConnectionError("the server closed the connection")
            self.received += len(part)
            window = window[-16:] + part
        # The reply, with its header.
        self.received -= 12 + 3 + len("_result") + 9 + 1


class Stage:
    """A server, and what it has cost so far."""

    def __init__(self, running, programs):
        self.running = running
        self.server = processes.Server(running, str(programs / "v9_rtmp_server"))
        self.pid = running.by_name["server"].pid

    def log_bytes(self):
        return os.path.getsize(self.server.log)

    def memory(self, field="VmRSS"):
        for line in processes.text_of(f"/proc/{self.pid}/status").splitlines():
            if line.startswith(field + ":"):
                return 1024 * int(line.split()[1])
        raise AssertionError(field)


def first_byte(_stage):
    """One byte of the handshake."""
    client = Client()
    client.send(b"\x03")
    client.socket.settimeout(0.5)
    try:
        client.received += len(client.socket.recv(65536))
    except TimeoutError:
        pass
    return client, {}


def handshake(_stage):
    """The whole handshake."""
    client = Client().shake_hands()
    client.sent -= 16
    return client, {}


def repeated(stage, count, first, following):
    client = Client().shake_hands()
    client.wait()
    client.sent = client.received = 0
    log = stage.log_bytes()
    client.send(first)
    for _ in range(count // 100):
        client.send(following * 100)
    client.wait()
    return client, {"log": stage.log_bytes() - log}


def connects(stage):
    """`connect`, again and again on one connection."""
    return repeated(stage, 1000, message(COMMAND_STREAM, COMMAND, connect()), again(COMMAND_STREAM, connect()))


def acknowledgements(stage):
    """Messages of one byte, after a window of one byte."""
    return repeated(stage, 4000, message(CONTROL_STREAM, WINDOW_SIZE, struct.pack(">I", 1)) + message(6, 99, b"x"),
                    again(6, b"x"))


def windows(stage):
    """Window acknowledgement sizes, again and again."""
    window = struct.pack(">I", 0xFFFFFFFF)
    return repeated(stage, 5000, message(CONTROL_STREAM, WINDOW_SIZE, window), again(CONTROL_STREAM, window))


def visits(stage):
    """One byte, then the end of the connection."""
    log = stage.log_bytes()
    client = None
    for _ in range(20):
        client = Client()
        client.send(b"\x03")
        client.socket.close()
    processes.wait_until(lambda: stage.server.count("Dropping connection") == 20, LIMIT_S)
    client.sent, client.received = 20, 0
    return client, {"log": stage.log_bytes() - log}


def deep_connect(stage):
    """A `connect` with objects 700 deep, whose dump is cut at 1 MiB."""
    body = connect(nest(700))
    client = Client().shake_hands()
    client.wait()
    client.sent = client.received = 0
    log = stage.log_bytes()
    client.send(message(COMMAND_STREAM, COMMAND, body))
    # It names no application, so the connection ends.
    processes.wait_until(lambda: stage.server.count("Dropping connection") == 1, LIMIT_S)
    return client, {"log": stage.log_bytes() - log}


def large_values(stage):
    """A `connect` of 1 MiB, objects 349,000 deep: memory at its peak."""
    client = Client().shake_hands()
    client.wait()
    client.sent = client.received = 0
    before = stage.memory()
    client.send(message(COMMAND_STREAM, COMMAND, connect(nest(349000))))
    processes.wait_until(lambda: stage.server.count("Dropping connection") == 1, LIMIT_S)
    return client, {"memory": stage.memory("VmHWM") - before}


ROWS = [first_byte, handshake, connects, acknowledgements, windows, visits, deep_connect, large_values]


def run(programs):
    print("| what a client sends | bytes | sent back per byte | log per byte | memory per byte |")
    print("| --- | --- | --- | --- | --- |")
    for row in ROWS:
        with tempfile.TemporaryDirectory(prefix="v9_") as directory, processes.Processes(directory) as running:
            client, costs = row(Stage(running, programs))
            cells = [f"{client.received / client.sent:.2f}"]
            cells += [f"{costs[name] / client.sent:.1f}" if name in costs else "" for name in ("log", "memory")]
            print(f"| {row.__doc__.rstrip('.')} | {client.sent} | {' | '.join(cells)} |", flush=True)
            client.socket.close()
    return 0


def main():
    parser = argparse.ArgumentParser()
    # Not resolved: a checkout may be made of links.
    here = pathlib.Path(__file__).absolute().parent.parent
    parser.add_argument("--programs", type=pathlib.Path, default=here / "build" / "release")
    programs = parser.parse_args().programs.resolve()
    if os.environ.get(INSIDE):
        processes.set_up_namespaces(True)
        return run(programs)
    user = [] if os.geteuid() == 0 else ["--map-root-user"]
    command = ["unshare", *user, "--net", "--mount", "--pid", "--fork", "--mount-proc", "--kill-child", "--", sys.executable,
               *sys.argv]
    return subprocess.run(command, env={**os.environ, INSIDE: "1"}, check=False).returncode


if __name__ == "__main__":
    sys.exit(main())
