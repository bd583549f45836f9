#!/usr/bin/env python3
"""The files of packaging/fencing hold against attacks, which succeed without them.

    fencing_test.py --programs DIRECTORY [TEST...]

The server, the firewall and HAProxy run in one network, and encoders, viewers and strangers in another, linked to it.
"""
import contextlib
import ctypes
import os
import pathlib
import socket
import struct
import subprocess
import sys
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.dont_write_bytecode = True
sys.path[:0] = [str(ROOT / "tests" / "tools" / "serve"), str(ROOT / "bench")]
import amplification as rtmp  # noqa: E402
from programs import Process, program, run_tests, start_server, wait_for  # noqa: E402

FENCING = ROOT / "packaging" / "fencing"
SERVER, ENCODER, STRANGER, VIEWER = "192.0.2.1", "192.0.2.10", "198.51.100.7", "203.0.113.9"
SLOTS = 128
CLONE_NEWNET = 0x40000000


def run(*command):
    subprocess.run(command, check=True)


def connections(*options):
    said = subprocess.run([program("v9_rtmp_ctl"), "--plain", "list", *options], check=False, capture_output=True, text=True)
    return said.stdout.splitlines()


class Outside:
    """The network of the clients."""

    @classmethod
    def make(cls):
        os.makedirs("/run/netns")
        run("ip", "netns", "add", "outside")
        run("ip", "link", "add", "inner", "type", "veth", "peer", "name", "outer", "netns", "outside")
        run("ip", "address", "add", SERVER + "/24", "dev", "inner")
        run("ip", "link", "set", "inner", "up")
        for address in (ENCODER, STRANGER, VIEWER):
            run("ip", "-n", "outside", "address", "add", address + "/24", "dev", "outer")
        run("ip", "-n", "outside", "link", "set", "outer", "up")
        for network in ("198.51.100.0/24", "203.0.113.0/24"):
            run("ip", "route", "add", network, "dev", "inner")
        # The kernel asks for the server's hardware address from any of these addresses.
        for path in pathlib.Path("/proc/sys/net/ipv4/conf").glob("*/rp_filter"):
            path.write_text("0", encoding="ascii")

    @staticmethod
    def socket(kind=socket.SOCK_STREAM):
        """Returns a socket that is made in the other network and stays there."""
        libc = ctypes.CDLL(None, use_errno=True)
        with open("/proc/self/ns/net", encoding="ascii") as here, open("/run/netns/outside", encoding="ascii") as there:
            try:
                if libc.setns(there.fileno(), CLONE_NEWNET) != 0:
                    raise OSError(ctypes.get_errno(), "setns")
                return socket.socket(type=kind)
            finally:
                libc.setns(here.fileno(), CLONE_NEWNET)


class Client(rtmp.Client):
    def __init__(self, address, limit_s=20):  # pylint: disable=super-init-not-called
        self.socket = Outside.socket()
        self.socket.bind((address, 0))
        self.socket.settimeout(limit_s)
        try:
            self.socket.connect((SERVER, 1935))
        except OSError:
            self.socket.close()
            raise
        self.sent = self.received = self.barriers = 0

    def command(self, name, *arguments):
        self.send(rtmp.message(rtmp.COMMAND_STREAM, rtmp.COMMAND, rtmp.text(name) + b"".join(arguments), 1))
        self.wait()

    def choose(self, *command):
        self.shake_hands()
        self.command(b"connect", rtmp.number(1), rtmp.members((b"app", rtmp.text(b"ombrex-live"))))
        self.command(command[0], rtmp.number(2), b"\x05", *(rtmp.text(argument) for argument in command[1:]))
        return self

    def close_hard(self):
        if self.socket.fileno() < 0:
            return
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()


class the_fences(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        Outside.make()

    def setUp(self):
        self.clients = []
        self.keep(start_server())

    def tearDown(self):
        for client in self.clients:
            client.close_hard()
        run("nft", "flush", "ruleset")

    def keep(self, process):
        self.addCleanup(process.stop)
        return process

    def load(self, name):
        run("nft", "-f", str(FENCING / name))

    def client(self, address, limit_s=20):
        client = Client(address, limit_s)
        self.clients.append(client)
        return client

    def socket_of(self, address, kind=socket.SOCK_STREAM):
        """Returns a socket with this address in the other network. It is closed after the test."""
        one = Outside.socket(kind)
        self.addCleanup(one.close)
        one.bind((address, 0))
        return one

    def storm(self, address, count):
        """Connects without waiting for answers."""
        for _ in range(count):
            one = self.socket_of(address)
            one.setblocking(False)
            one.connect_ex((SERVER, 1935))

    def wait_until_none_come(self):
        """Waits until no more connections come. The kernel tries to connect again after 1 s and 3 s."""
        last = []

        def look():
            last.append(len(connections()))
            return len(last) > 60 and len(set(last[-60:])) == 1
        wait_for("the number of connections stays", look)

    def start_fence_before_players(self):
        self.load("encoders.nft")
        self.keep(Process("haproxy", "-db", "-f", str(FENCING / "haproxy.cfg")))
        wait_for("HAProxy listens", lambda: subprocess.run(["ss", "-Hltn", "sport = :1945"], check=True,
                                                           capture_output=True).stdout)

    def test_are_needed_since_one_address_can_take_all_slots(self):
        for _ in range(SLOTS):
            stranger = self.client(STRANGER)
            stranger.send(b"\x03")
            stranger.receive(1)
        self.assertEqual(SLOTS, len(connections()))
        with self.assertRaises(OSError):
            self.client(VIEWER).choose(b"play", b"cam1")

    def test_let_one_address_have_four_connections_and_others_get_in(self):
        self.load("limits.nft")
        self.storm(STRANGER, 150)
        self.wait_until_none_come()
        self.assertEqual(4, len(connections()))
        self.client(VIEWER).choose(b"play", b"cam1")
        self.client(ENCODER).choose(b"publish", b"cam1", b"live")
        self.assertEqual(1, len(connections("--mode", "play")))
        self.assertEqual(1, len(connections("--mode", "publish")))

    def test_let_all_other_traffic_through(self):
        self.load("limits.nft")
        service, other_port = socket.socket(type=socket.SOCK_DGRAM), socket.create_server((SERVER, 8080), backlog=100)
        service.bind((SERVER, 5004))
        for one in (service, other_port):
            self.addCleanup(one.close)
            one.settimeout(5)
        for number in range(100):
            self.socket_of(STRANGER, socket.SOCK_DGRAM).sendto(b"%d" % number, (SERVER, 5004))
            self.assertEqual(b"%d" % number, service.recv(100))
            client = self.socket_of(STRANGER)
            client.settimeout(5)
            client.connect((SERVER, 8080))

    def test_let_one_address_begin_ten_connections_at_once_and_then_few(self):
        self.load("limits.nft")
        begin, count = time.monotonic(), 0
        with self.assertRaises(TimeoutError):
            while count < 100:
                # Those beyond four at a time are refused, which also counts: the kernel forgets the closed
                # ones later.
                with contextlib.suppress(ConnectionRefusedError):
                    self.client(STRANGER, limit_s=1).close_hard()
                count += 1
        self.assertGreaterEqual(count, 10)
        # One more every 2 s, even on a slow machine.
        self.assertLessEqual(count, 11 + (time.monotonic() - begin) / 2)
        self.client(VIEWER).choose(b"play", b"cam1")

    def test_hold_back_a_crowd_of_addresses_and_a_viewer_gets_in(self):
        self.load("limits.nft")
        crowd = [f"198.51.100.{i}" for i in range(100, 220)]
        for address in crowd:
            run("ip", "-n", "outside", "address", "add", address + "/24", "dev", "outer")
        for address in crowd:
            self.storm(address, 1)
        rules = subprocess.run(["nft", "list", "table", "inet", "v9_rtmp_limits"], check=True, capture_output=True, text=True)
        of_all = next(line for line in rules.stdout.splitlines() if "limit rate over 50/second" in line and "@" not in line)
        self.assertNotIn("packets 0 ", of_all)
        self.client(VIEWER).choose(b"play", b"cam1")

    def test_do_not_limit_encoders(self):
        self.load("limits.nft")
        for i in range(20):
            self.client(ENCODER).choose(b"publish", b"cam%d" % i, b"live")
        self.assertEqual(20, len(connections("--mode", "publish")))

    def test_give_a_client_that_sends_nothing_no_slot(self):
        self.start_fence_before_players()
        silent = self.client(STRANGER)
        short = self.client(STRANGER)
        short.send(b"\x03" + bytes(100))
        wrong = self.client(STRANGER)
        wrong.send(b"GET / HTTP/1.1\r\n")
        self.client(VIEWER).choose(b"play", b"cam1")
        for refused in (wrong, silent, short):
            with self.assertRaises(ConnectionError):
                refused.receive(1)
        self.assertEqual(["play"], [line.split("\t")[2] for line in connections()])

    def test_let_one_address_have_four_players_through_the_proxy(self):
        self.start_fence_before_players()
        for _ in range(4):
            self.client(STRANGER).choose(b"play", b"cam1")
        with self.assertRaises(ConnectionError):
            self.client(STRANGER).shake_hands()
        self.client(VIEWER).choose(b"play", b"cam1")
        self.assertEqual(5, len(connections("--mode", "play")))

    def test_drop_a_publisher_from_elsewhere(self):
        self.start_fence_before_players()
        os.makedirs("/run/watchdog", exist_ok=True)
        self.keep(Process(program("v9_rtmp_ctl"), "watchdog", "--state", "/run/watchdog", "--publish-from", "192.0.2.0/24"))
        encoder = self.client(ENCODER).choose(b"publish", b"cam1", b"live")
        stranger = self.client(STRANGER).choose(b"publish", b"cam2", b"live")
        with self.assertRaises(ConnectionError):
            stranger.receive(1)
        encoder.wait()
        self.assertEqual([ENCODER], [line.split("\t")[6].split(":")[0] for line in connections("--mode", "publish")])

    def test_keep_hosts_that_are_not_encoders_off_the_servers_own_port(self):
        self.start_fence_before_players()
        self.client(STRANGER).choose(b"play", b"cam1")
        self.assertEqual(["127.0.0.2"], [line.split("\t")[6].split(":")[0] for line in connections()])


if __name__ == "__main__":
    run_tests(__file__)
