#!/usr/bin/env python3
"""Checks which files include which. Prints every forbidden include line and exits with 1 if there is one.

The matrix below is the whole rule: for each file, the first matching pattern lists the patterns of files it may
include. Only the project's own includes are checked: those in quotes and of the control library.
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

RULES = [
    # The bottom.
    ("base/*", ["base/*"]),
    ("comm_socket/*", ["comm_socket/*", "comm_socket_v4.h"]),
    ("core/limits.h", []),
    ("core/switches.*", ["core/switches.h"]),
    ("core/connection_mutex.h", ["base/*"]),
    ("core/quit_signals.*", ["core/quit_signals.h"]),
    ("amf/*", ["amf/*", "base/*"]),
    # Values and rules, without I/O and without the connection.
    *[(header[:-2] + ".*", MODEL + ["base/*"] + LEAVES) for header in MODEL],
    *[(header[:-2] + ".*", RELAY_VALUES + MODEL + ["base/*"] + LEAVES) for header in RELAY_VALUES],
    ("relay/stream_metadata.h", ["amf/amf_value.h", "relay/stream_format.h", "rtmp/rtmp_packet.h"]),
    ("app/random_number.h", []),
    # The connection depends on the values it holds, but not on the code that works on it.
    ("core/connection.h", ["base/*", "core/connection_mutex.h", "relay/media_track.h", "relay/player_timebase.h",
                           "relay/stream_format.h", "relay/stream_metadata.h", "rtmp/read_ahead.h"] + MODEL),
    # Code that works on it.
    ("rtmp/*", ["rtmp/*", "base/*", "core/connection.h"] + LEAVES),
    ("relay/*", ["relay/*", "rtmp/packet_queues.h", "base/*"] + MODEL + TABLE + LEAVES),
    ("app/*", ["app/*", "amf/*", "relay/*", "base/*", "core/heap.h"] + MODEL + TABLE + LEAVES),
    ("control/*", ["control/*", "comm_socket_v4.h", "base/*", "core/quit_signals.h"] + TABLE + LEAVES),
    # The two folders that may include everything.
    ("core/main.cpp", ["*"]),
    ("core/main_loop.cpp", ["*"]),
    ("core/*", ["core/*", "base/*", "relay/stream_registry.h", "rtmp/session_threads.h"]),
    # Outside the daemon.
    ("tools/*", ["tools/*", "comm_socket_v4.h"]),
    ("bench/micro/*", ["bench/micro/*", "tests/support/*", "amf/*", "rtmp/*", "relay/*"] + TABLE + LEAVES),
    ("bench/*", ["bench/*", "tests/support/*"]),
    ("fuzz/*", ["*"]),
    ("tests/e2e/*", ["tests/*", "comm_socket_v4.h"]),
    ("tests/model/reference_*", ["tests/model/reference_*", "tests/support/*"]),
    ("tests/*", ["*"]),
]

INCLUDE = re.compile(r'^\s*#\s*include\s+(?:"([^"]+)"|<(comm_socket_v4\.h)>)')


def matches(path, patterns):
    return any(fnmatch.fnmatchcase(path, pattern) for pattern in patterns)


def check(root):
    wrong = 0
    checked = 0
    folders = sorted({pattern.split("/")[0] for pattern, _ in RULES})
    for path in sorted(p for folder in folders for p in (root / folder).rglob("*") if p.suffix in (".h", ".cpp", ".c")):
        name = path.relative_to(root).as_posix()
        allowed = next(targets for pattern, targets in RULES if fnmatch.fnmatchcase(name, pattern))
        checked += 1
        for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
            found = INCLUDE.match(line)
            target = found and (found[1] or found[2])
            if target and not matches(target, allowed):
                print(f"{name}:{number}: may not include {target}")
                wrong += 1
    print(f"checked {checked} files, {wrong} wrong includes")
    return checked > 0 and wrong == 0


if __name__ == "__main__":
    sys.exit(0 if check(pathlib.Path(__file__).resolve().parent.parent) else 1)
