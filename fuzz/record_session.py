#!/usr/bin/env python3
"""Records what ffmpeg sends when it publishes to and plays from the real server, as seeds below fuzz/corpus/.

    unshare -nm fuzz/record_session.py [SERVER]

SERVER is build/release/v9_rtmp_server by default. Everything runs in private namespaces, which the call above makes:
the script puts a tmpfs on /run and brings the loopback interface up. It needs root, ffmpeg and a built server.
Only the timing varies between recordings, so recording again changes little.
"""
import math
import pathlib
import socket
import subprocess
import sys
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
CORPUS = ROOT / "fuzz" / "corpus"
SERVER_PORT = 1935
PROXY_PORT = 1936
URL = f"rtmp://127.0.0.1:{PROXY_PORT}/ombrex-live/cam1"
HANDSHAKE_BYTES = 3073
KEPT_BYTES = 8000  # of each client; what follows is more of the same

# The actions of session_fuzz.cpp, by their position in its list.
CONNECT, RAW, TIME = 0, 11, 13

COMMAND_START = b"\2\0\7connect\0\x3f\xf0\0\0\0\0\0\0"
METADATA_START = b"\2\0\x0d@setDataFrame\2\0\x0aonMetaData"


class Recording:
    """What one client has sent, with the time of each piece."""

    def __init__(self, name):
        self.name = name
        self.pieces = []

    def bytes(self):
        return b"".join(piece for _, piece in self.pieces)


class Proxy:
    """Passes every connection on to the server and keeps what the client sends."""

    def __init__(self):
        self.listener = socket.create_server(("127.0.0.1", PROXY_PORT))
        self.names = []
        self.recordings = []
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        while True:
            client, _ = self.listener.accept()
            server = socket.create_connection(("127.0.0.1", SERVER_PORT))
            recording = Recording(self.names[len(self.recordings)])
            self.recordings.append(recording)
            threading.Thread(target=self.pass_on, args=(client, server, recording.pieces), daemon=True).start()
            threading.Thread(target=self.pass_on, args=(server, client, None), daemon=True).start()

    @staticmethod
    def pass_on(source, target, pieces):
        try:
            while piece := source.recv(65536):
                if pieces is not None:
                    pieces.append((time.monotonic(), piece))
                target.sendall(piece)
            target.shutdown(socket.SHUT_WR)
        except OSError:
            pass


def ffmpeg(*arguments):
    return subprocess.Popen(["ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", *arguments])


def wait_for_server():
    for _ in range(100):
        try:
            # Sends nothing, so the first real client is still the first to be given random numbers.
            socket.create_connection(("127.0.0.1", SERVER_PORT)).close()
            return
        except OSError:
            time.sleep(0.05)
    sys.exit("record_session.py: the server does not listen")


def record(server):
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/run"], check=True)
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    process = subprocess.Popen([server], stderr=subprocess.DEVNULL)
    try:
        wait_for_server()
        proxy = Proxy()
        proxy.names = ["ffmpeg_publish", "ffmpeg_play"]
        publisher = ffmpeg("-re", "-f", "lavfi", "-i", "testsrc=size=64x48:rate=10", "-f", "lavfi", "-i",
                           "sine=sample_rate=8000", "-t", "3", "-c:v", "libx264", "-preset", "ultrafast", "-g", "5",
                           "-pix_fmt", "yuv420p", "-b:v", "20k", "-c:a", "aac", "-b:a", "8k", "-f", "flv", URL)
        time.sleep(1)
        player = ffmpeg("-i", URL, "-f", "null", "-")
        if publisher.wait(30) != 0:
            sys.exit("record_session.py: ffmpeg has failed; its lines above say why")
        player.terminate()  # Players are not told that a stream has ended.
        player.wait(30)
        return proxy.recordings
    finally:
        process.kill()
        process.wait()


def messages(data, chunk_size=128):
    """Yields the messages of a chunk stream as (bytes, type, payload), without one that is cut short at the end."""
    streams = {}
    at = 0
    while at < len(data):
        begin = at
        fmt, stream_id = data[at] >> 6, data[at] & 63
        at += 1
        if stream_id < 2:
            sys.exit("record_session.py: long chunk stream ids are not expected from ffmpeg")
        stream = streams.setdefault(stream_id, {"length": 0, "type": 0})
        header = data[at:at + (11, 7, 3, 0)[fmt]]
        at += len(header)
        if fmt <= 1 and len(header) >= 7:
            stream["length"], stream["type"] = int.from_bytes(header[3:6], "big"), header[6]
        if fmt == 0 and header[:3] == b"\xff\xff\xff":
            at += 4
        payload = b""
        while True:
            piece = data[at:at + min(chunk_size, stream["length"] - len(payload))]
            payload += piece
            at += len(piece)
            if len(payload) == stream["length"] or at >= len(data):
                break
            at += 1
        if len(payload) < stream["length"]:
            return
        if stream_id == 2 and stream["type"] == 1:
            chunk_size = int.from_bytes(payload[:4], "big")
        yield data[begin:at], stream["type"], payload


def whole_messages(data):
    kept = b""
    for raw, _, _ in messages(data):
        if len(kept) + len(raw) > KEPT_BYTES:
            break
        kept += raw
    return kept


def session(recordings):
    """Returns the clients' bytes after their handshakes, in the order and at about the times at which they arrived."""
    events = []
    for client, recording in enumerate(recordings):
        passed = 0
        left = HANDSHAKE_BYTES + len(whole_messages(recording.bytes()[HANDSHAKE_BYTES:]))
        for when, piece in recording.pieces:
            skipped = max(0, HANDSHAKE_BYTES - passed)
            passed += len(piece)
            piece = piece[:left]
            left -= len(piece)
            if piece[skipped:]:
                events.append((when, client, piece[skipped:]))
    script = bytes([0])
    known = set()
    now = None
    for when, client, piece in sorted(events):
        if client not in known:
            known.add(client)
            script += bytes([CONNECT, client, 0])
        if now is not None and when - now > 0.02:
            script += bytes([TIME | 0x80, 0, int(math.sqrt((when - now) * 100))])
        now = when
        script += bytes([RAW, client]) + len(piece).to_bytes(2, "big") + piece
    return script


def write(target, name, data):
    path = CORPUS / target / name
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(data)
    print(f"{path.relative_to(ROOT)}: {len(data)} bytes")


def main():
    recordings = record(sys.argv[1] if len(sys.argv) > 1 else str(ROOT / "build/release/v9_rtmp_server"))
    for recording in recordings:
        data = recording.bytes()
        after = data[HANDSHAKE_BYTES:]
        # The server's random numbers are the same in every run, but each connection gets different ones.
        write("handshake", recording.name, b"\x00\xff\xff" + data[:HANDSHAKE_BYTES])
        write("chunk_reader", recording.name, b"\x00" + whole_messages(after))
        for number, (_, kind, payload) in enumerate(m for m in messages(after) if m[1] in (18, 20)):
            write("amf_read", f"{recording.name}_{number}", payload)
            # Only the object in each of them, because that is what is dumped and forwarded.
            for name, before in (("connect", COMMAND_START), ("metadata", METADATA_START)):
                if payload.startswith(before):
                    for target in ("amf_round_trip", "amf_dump"):
                        write(target, f"{recording.name}_{name}", payload[len(before):])
    write("session", "ffmpeg_publish_and_play", session(recordings))


if __name__ == "__main__":
    main()
