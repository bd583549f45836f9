"""Machines for scripts/scale-test: network namespaces with a /run and an /etc of their own, on one bridge. Programs that
are started without a machine run on the bridge itself, with the addresses of clients."""

import json
import os
import shlex
import shutil
import signal
import socket
import subprocess
import threading
import time

from processes import Processes, RunError, text_of, wait_until

ROOT_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
EXAMPLES = os.path.join(ROOT_DIR, "packaging/scaling")
FORWARD_UNIT = os.path.join(ROOT_DIR, "packaging/systemd/v9-rtmp-forward@.service")
HLS_UNIT = os.path.join(EXAMPLES, "v9-rtmp-hls@.service")
BRIDGE = "lab"
CLIENT_NET = "198.51.100"
CLIENT_ADDRESSES = 60
START_LIMIT_S = 10


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def unit_command(unit, **values):
    """The words of ExecStart of a unit, with values for its variables."""
    line = next(line for line in text_of(unit).splitlines() if line.startswith("ExecStart="))
    words = shlex.split(line.removeprefix("ExecStart="))
    for name, value in values.items():
        words = [word.replace("${" + name + "}", value).replace("%i", value) for word in words]
    return words


def set_up_bridge():
    run("ip", "link", "add", BRIDGE, "type", "bridge")
    run("ip", "address", "add", "192.0.2.10/24", "dev", BRIDGE)
    run("ip", "address", "add", "2001:db8::10/64", "dev", BRIDGE, "nodad")
    for i in range(1, CLIENT_ADDRESSES + 1):
        run("ip", "address", "add", f"{CLIENT_NET}.{i}/24", "dev", BRIDGE)
    run("ip", "link", "set", BRIDGE, "up")
    # A client gives up after 3 s on an address that does not answer.
    with open("/proc/sys/net/ipv4/tcp_syn_retries", "w", encoding="ascii") as file:
        file.write("1")


class Machine:
    """One network namespace with eth0 on the bridge."""

    def __init__(self, lab, name, address):
        self.lab, self.name, self.address = lab, name, address
        inside = ("mount -t tmpfs tmpfs /run; mkdir /run/etc && cp -a /etc/. /run/etc 2>/dev/null; mount --bind /run/etc /etc;"
                  " ip link set lo up; touch /run/ready; exec sleep infinity")
        self.holder = lab.processes.start(f"{name}", ["unshare", "--net", "--mount", "sh", "-c", inside])
        self.root = f"/proc/{self.holder.pid}/root"
        if not wait_until(lambda: os.path.exists(f"{self.root}/run/ready"), START_LIMIT_S):
            raise RunError(f"the machine {name} does not start", lab.processes.log(name))
        self.link = f"to-{name}"
        run("ip", "link", "add", self.link, "type", "veth", "peer", "name", "eth0", "netns", str(self.holder.pid))
        run("ip", "link", "set", self.link, "master", BRIDGE, "up")
        self.do("ip", "address", "add", f"{address}/24", "dev", "eth0")
        self.do("ip", "address", "add", f"2001:db8::{address.rsplit('.', 1)[1]}/64", "dev", "eth0", "nodad")
        self.do("ip", "link", "set", "eth0", "up")
        self.do("ip", "route", "add", f"{CLIENT_NET}.0/24", "dev", "eth0")
        self.do("mkdir", "/etc/v9-rtmp")
        # keepalived splits paths at blanks.
        shutil.copy(os.path.join(EXAMPLES, "v9-rtmp-agent"), self.path("/run/agent"))

    def command(self, *words):
        return ["nsenter", "--target", str(self.holder.pid), "--net", "--mount", "--", *words]

    def do(self, *words):
        return run(*self.command(*words))

    def path(self, inside):
        return self.root + inside

    def start(self, what, *words, end_signal=signal.SIGKILL):
        """Starts a program on the machine, under the name given as what."""
        return self.lab.processes.start(f"{self.name}.{what}", self.command(*words), end_signal=end_signal,
                                        environment=self.lab.environment)

    def kill(self, what):
        """Kills the program and everything it has started, as in a crash."""
        process = self.lab.processes.by_name[f"{self.name}.{what}"]
        os.killpg(process.pid, signal.SIGKILL)
        process.wait()

    def runs(self, what):
        return self.lab.processes.runs(f"{self.name}.{what}")

    def cpu_s(self, what):
        """Returns the CPU time of the program and of its children, both running and reaped."""
        pid = self.lab.processes.by_name[f"{self.name}.{what}"].pid
        total = 0
        for other in [pid, *children_of(pid)]:
            fields = text_of(f"/proc/{other}/stat").rsplit(")", 1)[1].split()
            total += int(fields[11]) + int(fields[12])
        return total / os.sysconf("SC_CLK_TCK")

    def sent_bytes(self):
        """Returns the bytes sent by eth0."""
        line = next(line for line in text_of(f"/proc/{self.holder.pid}/net/dev").splitlines() if line.strip().startswith("eth0:"))
        return int(line.split(":")[1].split()[8])

    def cut(self):
        run("ip", "link", "set", self.link, "down")

    def mend(self):
        run("ip", "link", "set", self.link, "up")

    # ---- what runs on machines

    def start_server(self):
        self.start("server", self.lab.server, end_signal=signal.SIGTERM)
        if not wait_until(lambda: os.path.exists(self.path("/run/v9_rtmp_server.socket")) and self.listens(1935),
                          START_LIMIT_S):
            raise RunError(f"the server on {self.name} does not listen", self.lab.processes.log(f"{self.name}.server"))

    def listens(self, port):
        table = text_of(f"/proc/{self.holder.pid}/net/tcp")
        return any(line.split()[1].endswith(f":{port:04X}") and line.split()[3] == "0A" for line in table.splitlines()[1:])

    def start_agent(self):
        """Starts the agent as v9-rtmp-agent.socket does."""
        self.start("agent", "systemd-socket-activate", "--listen=9936", "--accept", "--inetd", "--setenv=V9_CTL",
                   "--setenv=PATH", "/run/agent")

    def repeat(self, what, words):
        """Runs a program again and again, like a unit with Restart=always and RestartSec=2."""
        self.start(what, "sh", "-c", 'while :; do "$@"; sleep 2; done', what, *words)

    def start_forward(self, source, stream="cam1"):
        self.repeat("forward", unit_command(FORWARD_UNIT, FROM=f"rtmp://{source}/ombrex-output/{stream}",
                                            TO=f"rtmp://127.0.0.1/ombrex-live/{stream}"))

    def start_keepalived(self, example, priority):
        text = text_of(os.path.join(EXAMPLES, example)).replace("priority 100", f"priority {priority}")
        text = text.replace("/usr/lib/v9-rtmp/v9-rtmp-agent", "/run/agent")
        with open(self.path("/run/keepalived.conf"), "w", encoding="utf-8") as file:
            file.write(text)
        self.start("keepalived", "keepalived", "--dont-fork", "--log-console", "--vrrp", "--use-file=/run/keepalived.conf",
                   end_signal=signal.SIGTERM)

    def start_haproxy(self):
        self.start("haproxy", "haproxy", "-db", "-f", os.path.join(EXAMPLES, "haproxy.cfg"))
        if not wait_until(lambda: self.listens(1935), START_LIMIT_S):
            raise RunError(f"HAProxy on {self.name} does not listen", self.lab.processes.log(f"{self.name}.haproxy"))

    def has_address(self, address):
        return f" {address}/" in self.do("ip", "-o", "address", "show", "dev", "eth0")

    def tool(self, *words):
        return self.do(self.lab.tool, *words)

    def haproxy_says(self, command):
        with socket.socket(socket.AF_UNIX) as connection:
            connection.connect(self.path("/run/haproxy.sock"))
            connection.sendall(command.encode() + b"\n")
            reply = b""
            while block := connection.recv(65536):
                reply += block
        return reply.decode()

    def states(self):
        """Returns the state and sessions that HAProxy reports for each server of its backend "edges"."""
        rows = [line.split(",") for line in self.haproxy_says("show stat").splitlines() if line]
        names = rows[0]
        return {row[1]: (row[names.index("status")], int(row[names.index("scur")]))
                for row in rows[1:] if row[0] == "edges" and row[1] != "BACKEND"}


def children_of(pid):
    try:
        direct = [int(word) for word in text_of(f"/proc/{pid}/task/{pid}/children").split()]
    except OSError:
        return []
    return direct + [below for child in direct for below in children_of(child)]


class Load:
    """scale_load: publishers and players, and what has happened to them."""

    def __init__(self, lab, film, name="load"):
        self.events, self.tallies = [], {}
        self.changed = threading.Condition()
        self.process = lab.processes.start(name, [lab.load, film], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.said = open(lab.processes.log(f"{name}.events"), "w", encoding="utf-8")  # pylint: disable=consider-using-with
        threading.Thread(target=self.read, daemon=True).start()

    def read(self):
        for line in self.process.stdout:
            self.said.write(line.decode())
            self.said.flush()
            event = json.loads(line)
            with self.changed:
                if "tally" in event:
                    self.tallies[event["tally"]] = event
                else:
                    self.events.append(event)
                self.changed.notify_all()

    def do(self, *words):
        if self.process.poll() is not None:
            raise RunError("scale_load has ended")
        self.process.stdin.write((" ".join(map(str, words)) + "\n").encode())
        self.process.stdin.flush()

    def tally(self, name):
        with self.changed:
            self.tallies.pop(name, None)
            self.do("tally", name)
            if not self.changed.wait_for(lambda: name in self.tallies, 20):
                raise RunError("scale_load does not answer")
            return self.tallies[name]

    def leave(self, name):
        begin = time.monotonic()
        self.do("leave", name)
        if not wait_until(lambda: self.since(begin, name, "left", exact=True), 60):
            raise RunError(f"the players of {name} do not leave")

    def since(self, begin, name, what, exact=False):
        """Events of a group after a time."""
        with self.changed:
            return [event for event in self.events if event["at"] >= begin and event["event"] == what
                    and (event["who"] == name or not exact and event["who"].startswith(name + "."))]

    def playing(self, name):
        return self.tally(name)["playing"]

    def wait_until_playing(self, name, count, limit_s):
        if not wait_until(lambda: self.playing(name) >= count, limit_s):
            raise RunError(f"{self.playing(name)} of {count} players of {name} play after {limit_s} s")

    def end(self):
        self.process.stdin.close()
        try:
            self.process.wait(30)
        except subprocess.TimeoutExpired:
            self.process.kill()


class Lab:
    def __init__(self, directory, programs):
        self.processes = Processes(directory)
        self.server, self.tool, self.load = (os.path.join(programs, name)
                                             for name in ("v9_rtmp_server", "v9_rtmp_ctl", "scale_load"))
        self.environment = {"V9_CTL": self.tool}
        self.machines = {}
        os.environ.update(self.environment)
        set_up_bridge()

    def machine(self, name, address):
        self.machines[name] = Machine(self, name, address)
        return self.machines[name]
