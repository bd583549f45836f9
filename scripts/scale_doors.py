"""What scripts/scale-test checks from the clients' side: RTMPS, IPv6, limits, addresses, health, and a browser."""

import functools
import http.server
import json
import os
import signal
import socket
import subprocess
import sys
import threading
import time

from processes import say, text_of, wait_until
from scale_lab import EXAMPLES, HLS_UNIT, ROOT_DIR, unit_command

sys.path.insert(0, os.path.join(ROOT_DIR, "tests/tools/serve"))

BALANCER, BALANCER_6, ORIGIN = "192.0.2.20", "2001:db8::20", "192.0.2.30"
LIVE, STUDIO = "live.example", "studio.example"


def give_certificates(machine):
    """One self-signed certificate for each name."""
    machine.do("mkdir", "-p", "/etc/v9-rtmp/tls")
    for name in (LIVE, STUDIO):
        pem = machine.path(f"/etc/v9-rtmp/tls/{name}.pem")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", f"/CN={name}",
                        "-addext", f"subjectAltName=DNS:{name}", "-keyout", pem + ".key", "-out", pem], check=True,
                       capture_output=True)
        with open(pem, "a", encoding="ascii") as file:
            file.write(text_of(pem + ".key"))
        os.remove(pem + ".key")


def frames_of(url, frames=25):
    """Returns how many of the requested video frames ffmpeg receives."""
    done = subprocess.run(["timeout", "40", "ffmpeg", "-nostdin", "-loglevel", "error", "-i", url, "-map", "0:v", "-c", "copy",
                           "-frames:v", str(frames), "-progress", "-", "-f", "null", "-"], capture_output=True, text=True,
                          check=False)
    found = [line.split("=")[1] for line in done.stdout.splitlines() if line.startswith("frame=")]
    return int(found[-1]) if found else 0


def connections(machine):
    listing = machine.tool("--json", "list")
    return json.loads(listing)["connections"]


def would_drop(machine, address):
    """Returns how many lines the tool prints for a dry run. It exits with 1 if there is no such client."""
    command = machine.command(machine.lab.tool, "--plain", "drop", "address", address, "--dry-run")
    return len(subprocess.run(command, capture_output=True, text=True, check=False).stdout.splitlines())


def tls_and_ipv6(run):
    say("RTMPS by name, and IPv6")
    hosts = "/run/hosts"
    with open(hosts, "w", encoding="ascii") as file:
        file.write(f"127.0.0.1 localhost\n{BALANCER} {LIVE} {STUDIO}\n")
    subprocess.run(["mount", "--bind", hosts, "/etc/hosts"], check=True)
    run.lab.processes.start("rtmps_encoder", ["ffmpeg", "-nostdin", "-loglevel", "error", "-re", "-i", run.film, "-c", "copy",
                                              "-f", "flv", f"rtmps://{STUDIO}:443/ombrex-live/cam2"])
    origin = next(machine for machine in run.origins if machine.has_address(ORIGIN))
    arrived = wait_until(lambda: any(line["stream"] == "cam2" for line in connections(origin)), 15)
    run.require(arrived, "an encoder that uses RTMPS does not reach the origin by its name")
    urls = {"rtmps": f"rtmps://{LIVE}:443/ombrex-output/cam1", "ipv6": f"rtmp://[{BALANCER_6}]:1935/ombrex-output/cam1",
            "rtmps_of_the_other_name": f"rtmps://{STUDIO}:443/ombrex-output/cam2"}
    figures = {name: frames_of(url) for name, url in urls.items()}
    run.note("doors", **{f"frames_by_{name}": count for name, count in figures.items()})
    for name, count in figures.items():
        run.require(count == 25, f"a player over {name} got {count} of 25 frames")
    run.lab.processes.end("rtmps_encoder", signal.SIGKILL, 5)


def limits(run):
    say("More connections from one address than the limit")
    begun = {machine.name: run.lab.processes.log(f"{machine.name}.server") for machine in run.edges}
    before = sum(text_of(log).count("Accepted connection") for log in begun.values())
    kept, refused = [], 0
    for _ in range(40):
        try:
            client = socket.create_connection((BALANCER, 1935), timeout=5, source_address=("198.51.100.60", 0))
            client.sendall(b"\3" + bytes(1536))
            if client.recv(1):
                kept.append(client)
            else:
                refused += 1
        except ConnectionError:
            refused += 1
    other = frames_of(f"rtmp://{BALANCER}/ombrex-output/cam1", 10)
    accepted = sum(text_of(log).count("Accepted connection") for log in begun.values()) - before
    run.note("limits", connections_tried=40, kept=len(kept), refused=refused, accepted_by_servers=accepted,
             frames_of_another_address=other)
    run.require(len(kept) == 20 and refused == 20, "not exactly 20 connections of an address are kept")
    run.require(accepted <= 20 + 1 + 10, "refused connections reach the servers")
    run.require(other == 10, "another address is refused as well")
    for client in kept:
        client.close()


def addresses(run):
    say("Whose addresses the server sees")
    run.load.do("play", "far", "cam1", BALANCER, 1935, 10, "198.51.100.31")
    run.load.wait_until_playing("far", 10, 30)
    lines = [line for edge in run.edges for line in connections(edge) if line["mode"] == "play"]
    seen = {line["address"].rsplit(":", 1)[0] for line in lines}
    balancer = run.balancer()
    edge = next(edge for edge in run.edges if any(line["mode"] == "play" for line in connections(edge)))
    run.note("addresses", seen=sorted(seen), players=len(lines),
             drop_address_of_a_client=would_drop(edge, "198.51.100.31"),
             drop_address_of_the_balancer=would_drop(edge, balancer.address))
    run.require(seen == {balancer.address}, f"the servers see {seen}")
    run.load.leave("far")


def health(run):
    say("What a health check costs the server")
    edge = run.edges[0]
    # The lines about players that have just left are not the agent's.
    left = wait_until(lambda: all(line["mode"] != "play" for line in connections(edge)), 10)
    run.require(left, "the server keeps players that have left")
    log = run.lab.processes.log(f"{edge.name}.server")
    lines, begin = len(text_of(log).splitlines()), time.monotonic()
    period_s = 20 if run.players > 100 else 11
    time.sleep(period_s)
    by_agent = (len(text_of(log).splitlines()) - lines) * 60 / (time.monotonic() - begin)
    before = text_of(log).splitlines()
    with socket.create_connection((edge.address, 1935), timeout=5):
        pass
    wait_until(lambda: any(line.startswith("Disposing") for line in text_of(log).splitlines()[len(before):]), 8)
    by_connect = len(text_of(log).splitlines()) - len(before)
    run.note("health", lines_a_minute_by_agents=by_agent, lines_of_one_tcp_connect=by_connect)
    run.require(by_agent <= 100, f"the agent costs {by_agent:.0f} lines a minute")
    edge.lab.processes.by_name[f"{edge.name}.server"].send_signal(signal.SIGSTOP)
    seen = wait_until(lambda: run.states_of([edge]) == {"DOWN"}, 30)
    run.require(seen, "a server that hangs is not seen")
    edge.lab.processes.by_name[f"{edge.name}.server"].send_signal(signal.SIGCONT)
    run.wait("it is up again", lambda: run.states_of([edge]) == {"UP"}, 30)


class Files(http.server.SimpleHTTPRequestHandler):
    """Stands in for a static web server."""

    def log_message(self, *_):
        pass


def browser(run):
    say("A browser")
    from browser import Browser  # Only this step needs it.  pylint: disable=import-outside-toplevel,import-error
    directory = os.path.join(run.lab.processes.directory, "hls")
    os.makedirs(directory)
    with open(os.path.join(directory, "player.html"), "w", encoding="utf-8") as file:
        file.write(text_of(os.path.join(EXAMPLES, "player.html")))
    command = [word.replace("127.0.0.1", run.edges[0].address) for word in unit_command(HLS_UNIT, i="cam1")]
    run.lab.processes.start("hls", ["env", f"--chdir={directory}", *command])
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 8080), functools.partial(Files, directory=directory))
    threading.Thread(target=server.serve_forever, daemon=True).start()
    chromium = Browser()
    look = """const v = document.getElementById('video'); const q = v.getVideoPlaybackQuality();
              return {time: v.currentTime, frames: q.totalVideoFrames, dropped: q.droppedVideoFrames, width: v.videoWidth,
                      behind: v.buffered.length ? v.buffered.end(v.buffered.length - 1) - v.currentTime : null,
                      said: document.getElementById('state').textContent}"""
    try:
        run.wait("the playlist", lambda: os.path.exists(os.path.join(directory, "index.m3u8")), 30)
        chromium.open("http://127.0.0.1:8080/player.html")
        run.wait("the first picture", lambda: chromium.run(look)["frames"] > 0, 60)
        # After it has jumped to the newest segments.
        run.wait("it plays", lambda: chromium.run(look)["frames"] > 40, 30)
        first, begin = chromium.run(look), time.monotonic()
        time.sleep(5 if run.players < 100 else 20)
        last, seconds = chromium.run(look), time.monotonic() - begin
        run.note("browser", seconds=seconds, played_s=last["time"] - first["time"],
                 pictures_a_second=(last["frames"] - first["frames"]) / seconds, dropped=last["dropped"],
                 in_hand_s=last["behind"], width=last["width"])
        run.require(last["time"] - first["time"] > 0.8 * seconds and last["width"] == 320,
                    f"the browser does not play: {last}")
    finally:
        chromium.quit()
        run.lab.processes.end("hls", signal.SIGKILL, 5)
        server.shutdown()
