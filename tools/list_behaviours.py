#!/usr/bin/env python3
"""Writes out/behaviours.md: every behaviour that the tests check, one sentence each.

    tools/list_behaviours.py [ROOT]

A test's name is a sentence: the suite is its subject, and the test name is the rest. Suites are grouped by file; the
first matching pattern decides. Lists the tests written with GoogleTest or Python's unittest, and those added
with CMake's add_test.
"""
import fnmatch
import pathlib
import re
import sys

PAGE = "out/behaviours.md"
TESTS = "tests"

# Heading, introduction, files below tests/.
GROUPS = [
    ("Starting and stopping",
     "The command line, what the server needs to start, quit signals, and how it ends while clients are connected.",
     ["core/options_*", "e2e/command_line_*", "e2e/shutdown_*", "core/quit_signals_*",
      "storm/stop_*"]),
    ("Connections",
     "Which clients get a slot, the two threads of a connection, and how it is closed and removed.",
     ["core/connection*", "core/listener_*", "core/system_calls_*", "e2e/connection_table_*", "e2e/listener_*",
      "e2e/reconnect_*", "e2e/timer_slack_*", "e2e/vanished_player_*", "storm/drop_*"]),
    ("Handshake", "The first 3073 bytes each way.", ["rtmp/handshake_*", "e2e/handshake_*"]),
    ("Messages on the wire",
     "Chunks in and out, protocol control messages, acknowledgements, and the queues between the threads.",
     ["rtmp/*", "e2e/chunk_*", "e2e/control_messages_*", "e2e/segmentation_*", "segmentation/*"]),
    ("AMF0", "The values in commands and metadata: how they are stored, decoded, encoded and printed.",
     ["amf/*", "e2e/amf_on_the_wire_*"]),
    ("Commands", "Which commands a client may send, in which order, and the replies.",
     ["app/release_stream_*", "app/command_table_*", "app/connect_*", "app/create_stream_*", "app/dispatch_*", "app/play_*",
      "app/publish_*", "app/reply_*", "app/turn_*", "e2e/connect_*", "e2e/dispatch_*", "e2e/stream_commands_*"]),
    ("Metadata", "What a publisher announces about its stream, and what happens when that changes.",
     ["app/metadata_*", "relay/stream_format_*", "e2e/metadata*"]),
    ("Publishers: real time and takeover",
     "Media goes out no faster than real time, and a publisher that has stalled can be replaced.",
     ["app/publisher_media_*", "e2e/pacing_*", "e2e/takeover_*"]),
    ("Streams and the relay",
     "Which connection publishes, which ones play, and the messages and timestamps that each player receives.",
     ["relay/*", "e2e/relay_*", "e2e/registry_*", "e2e/unread_player_*", "model/*"]),
    ("Control socket", "Requests from other programs on the machine, and the library that carries them.",
     ["control/*", "comm_socket/*", "e2e/control_*"]),
    ("v9_rtmp_ctl", "The tool for operators.", ["tools/*", "e2e/ctl_*"]),
    ("Hostile clients", "Clients that send invalid or excessive data, or nothing.",
     ["app/large_values_*", "e2e/held_memory_*", "e2e/hostile_*", "e2e/slow_log_*"]),
    ("When the system fails", "Failing system calls, and refused memory, threads and locks.",
     ["app/failing_*", "app/broken_promise_*", "fault/*"]),
    ("Real clients", "Encoders and players that people use.", ["e2e/ffmpeg_*"]),
    ("Load and time", "The benchmarks, and the checks that they measure correctly.", ["bench/*"]),
    ("Basics", "Bytes, lines, assertions, and the pages that describe the server.",
     ["base/*", "docs/*"]),
    ("The service", "Its units, its user, its sandbox and its packages.", ["packaging/*"]),
    ("The server as a whole", "Behaviours that do not belong to a single part.", ["*"]),
]

GOOGLE_TEST = re.compile(r"^(?:TEST|TEST_F|TEST_P|TYPED_TEST)\(\s*(\w+),\s*(\w+)\s*\)", re.MULTILINE)
UNITTEST = re.compile(r"^class (\w+)\([\w.]*TestCase\)|^    def test_(\w+)\(self", re.MULTILINE)
ADD_TEST = re.compile(r"(?:add_test\(\s*NAME|^v9_python_test\()\s*([A-Za-z][\w${}]*)", re.MULTILINE)
SUITE_ENDS = re.compile(r"(?:_?[Dd]eath)?(?:_?[Tt]ests?)?(?:_death)?$")
NAMES = {"amf": "AMF", "av": "AV", "ctl": "v9_rtmp_ctl", "ecma": "ECMA", "ffmpeg": "ffmpeg", "io": "I/O", "json": "JSON",
         "rtmp": "RTMP"}
WORDS = re.compile(r"[A-Z]{2,}(?=[A-Z][a-z]|\b|_|\d)|[A-Z]?[a-z]+|[A-Z]|\d+(?:x\d+)?")

INTRODUCTION = """\
# The behaviour that the tests check

Each line is the name of a test, as a sentence. The files that contain the tests are listed after each subject. For a
line from a `.cpp` file, `ctest --test-dir build/release -R NAME` runs the test: NAME is the sentence with `_` for each
blank. {count} behaviours.
"""


def words(name):
    """Splits a_name_like_this or ANameLikeThis into words. The former keeps its capitals."""
    if "_" in name or name.islower():
        return name.replace("_", " ").strip()
    found = WORDS.findall(name)
    return " ".join(word if len(word) > 1 and word.isupper() else word.lower() for word in found)


def subject(suite):
    text = words(SUITE_ENDS.sub("", suite) or suite)
    text = " ".join(NAMES.get(word.lower(), word) for word in text.split(" "))
    return text[:1].upper() + text[1:]


def tests_of(path):
    """Returns (subject, sentence) of every test in a file."""
    text = path.read_text(encoding="utf-8")
    if path.suffix == ".cpp":
        return [(subject(suite), words(name)) for suite, name in GOOGLE_TEST.findall(text)]
    if path.suffix == ".py":
        result, suite = [], ""
        for class_name, test_name in UNITTEST.findall(text):
            suite = class_name or suite
            if test_name:
                result.append((subject(suite), words(test_name)))
        return result
    return [("", words(re.sub(r"\$\{(\w+)\}", r"a_\1", name))) for name in ADD_TEST.findall(text) if "_" in name]


def group_of(name):
    return next(index for index, (_, _, patterns) in enumerate(GROUPS)
                if any(fnmatch.fnmatchcase(name, pattern) for pattern in patterns))


def collect(root):
    """Returns for each group: subject -> (sentences in order of the files, files)."""
    groups = [{} for _ in GROUPS]
    files = sorted(path for path in (root / TESTS).rglob("*")
                   if path.suffix in (".cpp", ".py") or path.name == "CMakeLists.txt")
    for path in files:
        name = path.relative_to(root / TESTS).as_posix()
        for about, sentence in tests_of(path):
            sentences, found_in = groups[group_of(name)].setdefault(about, ({}, {}))
            sentences[sentence] = True
            found_in[name] = True
    return groups


def page(root):
    groups = collect(root)
    count = sum(len(sentences) for group in groups for sentences, _ in group.values())
    parts = [INTRODUCTION.format(count=count)]
    for (heading, introduction, _), group in zip(GROUPS, groups):
        if not group:
            continue
        parts.append(f"## {heading}\n\n{introduction}\n")
        for about, (sentences, files) in sorted(group.items(), key=lambda item: (not item[0], item[0].lower())):
            links = ", ".join(f"[{name}](../{TESTS}/{name})" for name in files)
            parts.append(f"**{about or 'Also'}** ({links})\n\n" + "".join(f"- {line}\n" for line in sentences))
    return "\n".join(parts), count


def main(arguments):
    root = pathlib.Path(arguments[0] if arguments else pathlib.Path(__file__).resolve().parent.parent)
    text, count = page(root)
    if count == 0:
        print(f"there are no tests below {root / TESTS}")
        return 1
    path = root / PAGE
    path.parent.mkdir(exist_ok=True)
    path.write_text(text, encoding="utf-8")
    print(f"{PAGE}: {count} behaviours")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
