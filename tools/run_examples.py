#!/usr/bin/env python3
"""Runs the commands that the documentation pages show, directly from the pages.

    tools/run_examples.py [--programs DIRECTORY] [--list] [PAGE...]

Without PAGE, it runs all existing pages of PAGES. --programs is the directory of the built programs, by default
build/release. --list only counts the commands. Every page runs in its own namespaces, with a loopback network, its own
/run, a copy of /etc in which SERVER is the name of this machine, and a directory like the checkout that also has
film.mp4 and film.mkv.

A block that begins with ```sh contains commands. They run unchanged, in the order of the page, with bash -euo pipefail, and
must end with status 0. Lines directly before the block change that; a reader of the page does not see them:

    <!-- not run: REASON -->   the block is not run; at most 15 % of all commands may be marked so
    <!-- with: server -->      a server runs during the block; with "stream" it also has a publisher of cam1
    <!-- until: COMMAND -->    the block runs without end; it has succeeded when COMMAND succeeds, and then gets Ctrl-C
    <!-- says: TEXT -->        the same, but it has succeeded when it has printed TEXT
    <!-- as: user -->          the block is run by a user other than root
    <!-- status: 0 1 -->       the exit statuses that are allowed

Output is in ```text blocks. So that no command goes untested, these are errors: an indented block, a block with any
other language or none, and a line that begins with "$ " in a ```text block.
"""
import argparse
import contextlib
import os
import pathlib
import pty
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.dont_write_bytecode = True
sys.path.insert(0, str(ROOT / "scripts"))
import processes  # noqa: E402

PAGES = ["README.md", "docs/operations.md", "docs/scaling.md", "docs/clients.md", "SECURITY.md"]
MOST_NOT_RUN = 0.15
# For "until" marks. plays succeeds once a player of the stream has received more than 100,000 bytes, publishes once a
# publisher of it has sent more than 20,000.
MARK_FUNCTIONS = """
plays() { v9_rtmp_ctl --plain list --mode play --stream "$1" | awk -F'\\t' '$5 > 100000 {found = 1} END {exit !found}'; }
publishes() { v9_rtmp_ctl --plain list --mode publish --stream "$1" | awk -F'\\t' '$6 > 20000 {found = 1} END {exit !found}'; }
"""
LIMIT_S = 90
UNTIL_LIMIT_S = 30
ADDRESS = "192.0.2.1"
INSIDE = "V9_EXAMPLES_INSIDE"
MARK = re.compile(r"<!-- (not run|with|until|says|as|status): (.+) -->$")
LANGUAGES = ("sh", "text")
FENCE = re.compile(r"```(\w*)$")
VALUES = {"with": {"server", "stream"}, "as": {"user"}}


class Example:
    def __init__(self, page, line, marks, text):
        self.page, self.line, self.marks, self.text = page, line, marks, text

    def commands(self):
        lines = self.text.replace("\\\n", " ").splitlines()
        return [line.strip() for line in lines if line.strip() and not line.strip().startswith("#")]

    def name(self):
        return f"{self.page}:{self.line}"


def parse(page, text):
    """Returns the examples of a page, and the errors on it."""
    examples, errors = [], []
    language, begin, block, marks = None, 0, [], {}
    for number, line in enumerate(text.splitlines(), 1):
        fence = FENCE.match(line)
        if language is not None:
            if line == "```":
                if language == "sh":
                    examples.append(Example(page, begin, marks, "\n".join(block)))
                language, marks = None, {}
            else:
                block.append(line)
                if language != "sh" and line.startswith("$ "):
                    errors.append(f"{page}:{number}: a command in a block that is not run")
        elif fence:
            language, begin, block = fence[1], number, []
            if language not in LANGUAGES:
                errors.append(f"{page}:{number}: a block must be ```sh or ```text, so that every command is tested")
        elif line.lstrip().startswith(("```", "~~~")):
            errors.append(f"{page}:{number}: a fence must begin the line, and only a language may follow its three backticks")
        elif mark := MARK.match(line):
            marks[mark[1]] = mark[2]
            if mark[1] in VALUES and mark[2] not in VALUES[mark[1]]:
                errors.append(f"{page}:{number}: '{mark[2]}' is not a value of '{mark[1]}'")
        else:
            if marks:
                errors.append(f"{page}:{number}: the mark on an earlier line is not followed by a block")
                marks = {}
            if line.startswith("    "):
                errors.append(f"{page}:{number}: an indented block: commands must be between ```sh and ```")
    if language is not None:
        errors.append(f"{page}:{begin}: the block does not end")
    return examples, errors


def report_not_run(examples):
    """Prints the commands that are not run. Returns whether they are few enough."""
    count = sum(len(example.commands()) for example in examples)
    left_out = [example for example in examples if "not run" in example.marks]
    left_out_count = sum(len(example.commands()) for example in left_out)
    print(f"{count} commands, {left_out_count} of them not run:")
    for example in left_out:
        print(f"    {example.name()}: {example.marks['not run']}")
        for command in example.commands():
            print(f"        {command}")
    if left_out_count > MOST_NOT_RUN * count:
        print(f"FAILED: {left_out_count} of {count} commands are not run; at most {MOST_NOT_RUN:.0%} may be")
        return False
    return True


class Machine:
    """The environment in which the examples of one page run. Created inside the namespaces."""

    def __init__(self, directory, programs):
        self.directory = pathlib.Path(directory)
        self.programs = programs
        self.home = self.directory / "home"
        self.checkout = self.directory / "v9_rtmp_server"
        for made in (self.home, self.checkout / "build"):
            made.mkdir(parents=True)
        processes.set_up_namespaces(True)
        # Some clients look up names only if the machine has an address other than the loopback's.
        subprocess.run(["ip", "address", "add", f"{ADDRESS}/32", "dev", "lo"], check=True)
        self.make_etc()
        for entry in ROOT.iterdir():
            if entry.name not in ("build", "out", ".git"):
                (self.checkout / entry.name).symlink_to(entry)
        (self.checkout / "build" / "release").symlink_to(programs)
        # Settings of the players, so that they need neither a screen nor a sound card.
        (self.home / ".config" / "mpv").mkdir(parents=True)
        (self.home / ".config" / "vlc").mkdir()
        (self.home / ".config" / "vlc" / "vlcrc").write_text("[core]\nvout=dummy\naout=dummy\n", encoding="utf-8")
        (self.home / ".config" / "mpv" / "mpv.conf").write_text("vo=null\nao=null\n", encoding="utf-8")
        self.environment = {
            **os.environ, "HOME": str(self.home), "TERM": "xterm", "COLUMNS": "120", "LINES": "40",
            "SDL_VIDEODRIVER": "dummy", "SDL_AUDIODRIVER": "dummy",
            "GST_PLUGIN_FEATURE_RANK": "fakevideosink:MAX,fakeaudiosink:MAX",
            "PATH": f"{programs}:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"}
        for name in ("film.mp4", "film.mkv"):
            subprocess.run(
                ["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=size=320x240:rate=25", "-f", "lavfi", "-i", "sine",
                 "-t", "8", "-c:v", "libx264", "-preset", "ultrafast", "-g", "25", "-pix_fmt", "yuv420p", "-c:a", "aac",
                 str(self.checkout / name)], check=True, stdin=subprocess.DEVNULL)
        for path in (self.directory, self.home, self.checkout):
            path.chmod(0o777)

    def make_etc(self):
        etc = self.directory / "etc"
        subprocess.run(["cp", "-a", "--no-preserve=ownership", "/etc", str(etc)], check=False, stderr=subprocess.DEVNULL)
        with open(etc / "hosts", "a", encoding="utf-8") as hosts:
            hosts.write(f"{ADDRESS} SERVER\n")
        shutil.copy(ROOT / "packaging" / "v9-rtmp-watchdog.conf", etc)
        subprocess.run(["mount", "--bind", str(etc), "/etc"], check=True)

    @contextlib.contextmanager
    def beside(self, what, name):
        """Runs the server, or the server and a publisher of cam1, while an example runs."""
        with processes.Processes(str(self.directory / re.sub(r"\W", "_", name))) as running:
            if what is not None:
                processes.Server(running, str(self.programs / "v9_rtmp_server"))
            if what == "stream":
                running.start("publisher", ["ffmpeg", "-v", "error", "-stream_loop", "-1", "-re", "-i",
                                            str(self.checkout / "film.mp4"), "-c", "copy", "-f", "flv",
                                            "rtmp://SERVER/ombrex-live/cam1"])
                if not processes.wait_until(lambda: self.succeeds("v9_rtmp_ctl --plain list --mode publish --stream cam1"),
                                            UNTIL_LIMIT_S):
                    raise processes.RunError("cam1 has no publisher", running.log("publisher"))
            yield

    def shell(self, text):
        return ["bash", "-euo", "pipefail", "-c", text]

    def succeeds(self, command):
        ended = subprocess.run(self.shell(MARK_FUNCTIONS + command), cwd=self.checkout, env=self.environment, check=False,
                               stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=LIMIT_S)
        return ended.returncode == 0

    def run(self, example):
        """Returns None, or the reason why the example has failed."""
        command = self.shell(example.text)
        if example.marks.get("as") == "user":
            command = ["unshare", "--user", "--map-user=65534", "--", *command]
        with self.beside(example.marks.get("with"), example.name()):
            return run_in_terminal(example, command, self)


def run_in_terminal(example, command, machine):
    """Runs a command in a terminal. Returns None, or the reason why it has failed."""
    until, says = example.marks.get("until"), example.marks.get("says")
    is_endless = until is not None or says is not None
    awaited = f"it did not print: {says}" if until is None else f"this did not succeed: {until}"
    near, far = pty.openpty()
    process = subprocess.Popen(command, cwd=machine.checkout, env=machine.environment, stdin=far, stdout=far, stderr=far,
                               start_new_session=True)
    os.close(far)
    os.set_blocking(near, False)
    said = bytearray()

    def has_ended():
        with contextlib.suppress(OSError):
            while data := os.read(near, 65536):
                said.extend(data)
        return process.poll() is not None

    def is_done():
        return machine.succeeds(until) if until is not None else says.encode() in said

    limit_s = UNTIL_LIMIT_S if is_endless else LIMIT_S
    deadline = time.monotonic() + limit_s
    done = False
    while not done and not has_ended() and time.monotonic() < deadline:
        done = is_endless and is_done()
        time.sleep(processes.POLL_S)
    why = None
    if not has_ended():
        if not done:
            why = f"{limit_s} s have passed; {awaited if is_endless else 'it did not end'}"
        # Twice, because ffmpeg continues to wait after the first.
        for number in (signal.SIGINT, signal.SIGINT, signal.SIGKILL):
            end_group(process, number)
            if processes.wait_until(has_ended, 5):
                break
    elif str(process.returncode) not in example.marks.get("status", "0").split():
        why = f"ended with status {process.returncode}"
    elif is_endless and not done and not is_done():
        why = f"ended too early; {awaited}"
    end_group(process, signal.SIGKILL)
    os.close(near)
    return why and f"{why}\n{said.decode(errors='replace')[-3000:]}"


def end_group(process, number):
    with contextlib.suppress(ProcessLookupError):
        os.killpg(process.pid, number)


def run_page(page, programs):
    """Runs inside the namespaces. Returns whether all examples of the page have succeeded."""
    examples, _ = parse(page, (ROOT / page).read_text(encoding="utf-8"))
    failed = 0
    with tempfile.TemporaryDirectory(prefix="v9_") as directory:
        machine = Machine(directory, programs)
        for example in examples:
            if "not run" in example.marks:
                continue
            began = time.monotonic()
            try:
                why = machine.run(example)
            except processes.RunError as error:
                why = f"{error}\n{processes.text_of(error.log) if error.log else ''}"
            print(f"{'ok    ' if why is None else 'FAILED'} {time.monotonic() - began:5.1f} s  {example.name()}  "
                  f"{shlex.quote(example.commands()[0])[:80]}", flush=True)
            if why is not None:
                failed += 1
                print(example.text, f"--- {why}", sep="\n", flush=True)
        subprocess.run(["umount", "-l", "/etc"], check=False)
    return failed == 0


def start_page(page, programs):
    user = [] if os.geteuid() == 0 else ["--map-root-user"]
    command = ["unshare", *user, "--net", "--mount", "--pid", "--fork", "--mount-proc", "--kill-child", "--", sys.executable,
               str(ROOT / "tools" / "run_examples.py"), "--programs", str(programs), page]
    print(f"== {page}", flush=True)
    return subprocess.run(command, env={**os.environ, INSIDE: "1"}, check=False).returncode == 0


def exists(page):
    return (ROOT / page).exists()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--programs", type=pathlib.Path, default=ROOT / "build" / "release")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("pages", nargs="*")
    options = parser.parse_args()
    programs = options.programs.resolve()
    if os.environ.get(INSIDE):
        return 0 if run_page(options.pages[0], programs) else 1
    examples, errors = [], []
    for page in filter(exists, PAGES):
        found, wrong = parse(page, (ROOT / page).read_text(encoding="utf-8"))
        examples += found
        errors += wrong
    print(*errors, sep="\n", end="\n" if errors else "")
    good = report_not_run(examples) and not errors
    if not options.list:
        for page in filter(exists, options.pages or PAGES):
            good = start_page(page, programs) and good
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
