#!/usr/bin/env python3
"""Checks which files include which. Prints every forbidden include line and exits with 1 if there is one.

The matrix below is the complete rule: for each file, the first row with a matching pattern lists the headers that it
may include, as patterns and lists of patterns. Only the project's own includes are checked: those in quotes and the one
of the control library. A pattern that no file matches, and a permission that no file of its row uses, are errors too.
Code that tests the server from outside must not reach the server's code, not even through other headers and the sources
that belong to them.
"""
import fnmatch
import pathlib
import re
import sys

LEAVES = ["core/limits.h", "core/switches.h"]
MODEL = ["rtmp/" + name + ".h" for name in
         ("rtmp_packet", "shared_payload", "outgoing_packet", "packet_dump", "media_probe", "message_types", "chunk_format",
          "link_direction")]
RELAY_VALUES = ["relay/" + name + ".h" for name in
                ("stream_name", "stream_registry", "stream_format", "codec_lock", "media_track", "player_timebase")]
TABLE = ["core/connection.h", "core/connection_table.h"]

SOURCES_OF_MODEL = [header[:-2] + ".*" for header in MODEL]
SOURCES_OF_RELAY_VALUES = [header[:-2] + ".*" for header in RELAY_VALUES]

RULES = [
    # The lowest layer.
    (["base/*"], ["base/*"]),
    (["comm_socket/*"], ["comm_socket/*", "comm_socket_v4.h"]),
    (["core/limits.h"], []),
    (["core/switches.*"], ["core/switches.h"]),
    (["core/connection_mutex.h"], ["base/*"]),
    (["core/quit_signals.*"], ["core/quit_signals.h"]),
    (["amf/*"], ["amf/*", "base/*"]),
    # Values and rules, without sockets and without the connection.
    (SOURCES_OF_MODEL, [MODEL, "base/*", LEAVES]),
    (SOURCES_OF_RELAY_VALUES, [RELAY_VALUES, MODEL, "base/*", LEAVES]),
    (["relay/stream_metadata.h"], ["amf/amf_value.h", "relay/stream_format.h", "rtmp/rtmp_packet.h"]),
    (["app/random_number.h"], []),
    # The connection includes the values that it holds, and no code that uses it.
    (["core/connection.h"], ["base/*", "core/connection_mutex.h", "relay/media_track.h", "relay/player_timebase.h",
                             "relay/stream_format.h", "relay/stream_metadata.h", "rtmp/read_ahead.h", MODEL]),
    # The code that uses the connection.
    (["rtmp/*"], ["rtmp/*", "base/*", "core/connection.h"]),
    (["relay/*"], ["relay/*", "rtmp/packet_queues.h", "base/*", MODEL, TABLE, LEAVES]),
    (["app/*"], ["app/*", "amf/*", "relay/*", "base/*", "core/heap.h", MODEL, TABLE, LEAVES]),
    (["control/*"], ["control/*", "comm_socket_v4.h", "base/*", "core/quit_signals.h", TABLE, LEAVES]),
    # These two may include everything; the rest of core/ may not.
    (["core/main.cpp", "core/main_loop.cpp"], ["*"]),
    (["core/*"], ["core/*", "base/*", "relay/stream_registry.h", "rtmp/session_threads.h"]),
    # Outside the daemon.
    (["tools/*"], ["tools/*", "comm_socket_v4.h"]),
    (["bench/micro/*"], ["bench/micro/*", "tests/support/*", "amf/*", "rtmp/*", "relay/*", TABLE, LEAVES]),
    (["bench/*"], ["bench/*", "tests/support/*"]),
    (["fuzz/*"], ["*"]),
    (["tests/e2e/*"], ["tests/support/*", "tests/segmentation/session.h"]),
    (["tests/fault/*"], ["tests/fault/*", "tests/support/*"]),
    (["tests/storm/*"], ["tests/storm/*", "tests/support/*"]),
    (["tests/model/reference_*"], ["tests/model/reference_*", "tests/support/*"]),
    (["tests/*"], ["*"]),
]

SERVER = ["amf/*", "app/*", "base/*", "comm_socket/*", "control/*", "core/*", "relay/*", "rtmp/*"]
TESTED_FROM_OUTSIDE = ["tests/e2e/*", "tests/fault/*", "tests/storm/*", "tests/model/reference_*"]

INCLUDE = re.compile(r'^\s*#\s*include\s+(?:"([^"]+)"|<(comm_socket_v4\.h)>)')


def matches(path, patterns):
    return any(fnmatch.fnmatchcase(path, pattern) for pattern in patterns)


def flat(patterns):
    return [pattern for entry in patterns for pattern in ([entry] if isinstance(entry, str) else entry)]


def included(root, rules):
    """Returns for each file the line numbers and targets of its includes of the project's own headers."""
    folders = sorted({pattern.split("/")[0] for patterns, _ in rules for pattern in patterns})
    includes = {}
    for path in sorted(path for folder in folders for path in (root / folder).rglob("*")):
        if path.suffix in (".h", ".cpp", ".c"):
            lines = enumerate(path.read_text(encoding="utf-8").splitlines(), 1)
            includes[path.relative_to(root).as_posix()] = [(number, found[1] or found[2]) for number, line in lines
                                                           if (found := INCLUDE.match(line))]
    return includes


def wrong_includes(includes, rules):
    for name, lines in includes.items():
        allowed = flat(next(targets for patterns, targets in rules if matches(name, patterns)))
        for number, target in lines:
            if not matches(target, allowed):
                yield f"{name}:{number}: may not include {target}"


def dead_rules(includes, rules):
    rest = set(includes)
    for patterns, targets in rules:
        for pattern in patterns:
            if not any(fnmatch.fnmatchcase(name, pattern) for name in rest):
                yield f"the rule for {pattern} matches no file"
        row = {name for name in rest if matches(name, patterns)}
        rest -= row
        used = {target for name in row for _, target in includes[name]}
        for entry in targets:
            if not any(matches(target, flat([entry])) for target in used):
                yield f"no file of {' '.join(patterns)} includes {entry} any more"


def ways_into_the_server(includes):
    for name in includes:
        ways = {name: name} if matches(name, TESTED_FROM_OUTSIDE) else {}
        open_ends = list(ways)
        while open_ends:
            at = open_ends.pop()
            targets = [target for _, target in includes.get(at, [])]
            if (source := at.removesuffix(".h") + ".cpp") in includes:
                targets.append(source)
            for target in targets:
                if matches(target, SERVER):
                    yield f"{name}: reaches the server's code: {ways[at]} -> {target}"
                elif target not in ways:
                    ways[target] = f"{ways[at]} -> {target}"
                    open_ends.append(target)


def check(root, rules=None):
    rules = RULES if rules is None else rules
    includes = included(root, rules)
    wrong = [*wrong_includes(includes, rules), *dead_rules(includes, rules), *ways_into_the_server(includes)]
    print("\n".join([*wrong, f"checked the includes of {len(includes)} files, {len(wrong)} wrong"]))
    return bool(includes) and not wrong


if __name__ == "__main__":
    sys.exit(0 if check(pathlib.Path(__file__).resolve().parent.parent) else 1)
