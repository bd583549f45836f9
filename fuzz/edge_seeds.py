#!/usr/bin/env python3
"""Writes the seeds that test a limit or a rule, below fuzz/corpus/. record_session.py records what clients really send;
these are inputs that clients hardly ever send and a fuzzer hardly ever finds."""
import pathlib

CORPUS = pathlib.Path(__file__).resolve().parent / "corpus"


def write(target, name, data):
    path = CORPUS / target / name
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(data)


def be(value, count):
    return value.to_bytes(count, "big")


# --- AMF0

def amf_seeds():
    string = b"\x02\x00\x01a"
    values = {
        "number": b"\x00\x7f\xf8" + bytes(6),
        "boolean_2": b"\x01\x02",
        "strings": string + b"\x0c\x00\x00\x00\x01a" + b"\x0f\x00\x00\x00\x01a",
        "object": b"\x03\x00\x01a" + string + b"\x00\x01b\x06\x00\x01a\x05\x00\x00\x09",
        "object_without_end": b"\x03\x00\x01a" + string,
        "ecma_array": b"\x08\x00\x00\x00\x02\x00\x01a" + string + b"\x00\x01a\x05\x00\x00\x09",
        "ecma_array_too_long": b"\x08\x00\x00\x00\x01\x00\x01a" + string + b"\x00\x01b\x05\x00\x00\x09",
        "deep": b"\x03\x00\x01a" * 60,
        "strict_array": b"\x0a\x00\x00\x00\x01\x05",
        "long_string_too_long": b"\x0c\x00\x10\x00\x01a",
    }
    for name, value in values.items():
        for target in ("amf_read", "amf_round_trip", "amf_dump"):
            write(target, name, value)


# --- chunks

def message(kind, payload, stream=3, timestamp=0, message_stream=0, chunk_size=128, length=None):
    extended = timestamp >= 0xFFFFFF
    data = bytes([stream]) + be(min(timestamp, 0xFFFFFF), 3)
    data += be(len(payload) if length is None else length, 3) + bytes([kind]) + message_stream.to_bytes(4, "little")
    data += be(timestamp, 4) if extended else b""
    for at in range(0, len(payload), chunk_size):
        data += (bytes([0xC0 | stream]) if at else b"") + payload[at:at + chunk_size]
    return data


def chunk_reader_seeds():
    long_ids = b"".join(b"\x00" + bytes([i]) + message(20, b"", 3)[1:] for i in range(64))
    seeds = {
        "every_format": message(8, b"abcd", 4, 1000) + b"\x44" + be(20, 3) + be(2, 3) + b"\x08ab" +
                        b"\x84" + be(5, 3) + b"cd" + b"\xc4ef",
        "format_1_first": b"\x45" + be(0xFFFFFF, 3) + be(1, 3) + b"\x08a" + b"\xc5b",
        "extended_timestamp": message(9, b"a" * 300, 6, 0xFFFFFF) + message(9, b"b", 6, 0xFFFFFFFF),
        "not_continued": message(20, b"a" * 300)[:-45] + b"\x03" + b"a" * 44,
        "streams_64": long_ids + b"\xc3",
        "three_byte_id": b"\x01\x00\x01" + message(20, b"a" * 130)[1:],
        "longest": message(20, b"a", length=0xFFFFF),
        "too_long": message(20, b"a", length=0x100000),
        "empty_messages": message(20, b"") + b"\xc3" * 40,
        "chunk_size_most": message(1, be(4194304, 4), 2) + message(20, b"a" * 1000, chunk_size=4194304),
        "chunk_size_too_much": message(1, be(4194305, 4), 2),
        "chunk_size_0": message(1, be(0, 4), 2),
        "chunk_size_short": message(1, b"\0\0\1", 2),
        "chunk_size_1": message(1, be(1, 4), 2) + message(20, b"abcdef", chunk_size=1),
        "window": message(5, be(100, 4), 2) + message(20, b"a" * 150) + message(20, b"b" * 90) +
                  message(20, b"") + b"\xc3" * 9,
        "window_small_after_much": message(5, be(3000, 4), 2) + message(20, b"a" * 2000, chunk_size=128) * 4,
        "abort": message(2, be(3, 4), 2),
        "peer_bandwidth": message(6, be(2500000, 4) + b"\2", 2),
        "user_control": message(4, b"\0\3" + be(1, 4) + be(3000, 4), 2) + message(3, be(1, 4), 2),
    }
    for name, data in seeds.items():
        write("chunk_reader", name, b"\0" + data)
    write("chunk_reader", "no_default_acknowledgement", b"\4" + seeds["window"])
    write("chunk_reader", "dumped_byte_by_byte", b"\x09" + seeds["every_format"] + seeds["extended_timestamp"])


def round_trip_seeds():
    def record(what, stream, timestamp, length, kind, message_stream):
        number = stream - 2 if stream < 0xF000 else stream - 64
        return bytes([what]) + be(number, 2) + be(timestamp, 4) + be(length, 2) + bytes([kind]) + \
            be(message_stream, 4)

    write("chunk_round_trip", "streams_and_timestamps", b"\0" + b"".join(
        record(0, stream, timestamp, 290, 8, 1) for stream, timestamp in
        ((3, 0), (63, 0xFFFFFE), (64, 0xFFFFFF), (319, 0x1000000), (320, 0xFFFFFFFF), (65599, 1))))
    # More pieces than one system call takes.
    for options in range(8):
        write("chunk_round_trip", f"chunks_of_1_byte_{options}", bytes([options]) + record(2, 2, 0, 0, 0, 0) +
              record(1, 3, 0, 2400, 9, 1))
    write("chunk_round_trip", "client_leaves", b"\x08" + be(700, 2) + record(1, 3, 0, 2400, 9, 1))
    write("chunk_round_trip", "empty", b"\0" + record(3, 3, 0, 0, 8, 1) + record(0, 3, 0, 5, 8, 1))


# --- sessions: the actions of session_fuzz.cpp, by their position in its list

(CONNECT, CONNECT_COMMAND, CREATE_STREAM, PUBLISH, PLAY, MEDIA, METADATA, CHUNK_SIZE, WINDOW, COMMAND, PAYLOAD, RAW,
 CLOSE, TIME, READING, LIST, DROP_ID, DROP_NAME, CONTROL, REFUSE_THREADS, CROWD) = range(21)
AAC_HEADER, AAC, MP3, AVC_HEADER, AVC, H263 = range(6)
STEP_23, STEP_40, STEP_1000 = 2 << 5, 3 << 5, 4 << 5
A, B, C, D = range(4)


def enter(client, role):
    return bytes([CONNECT, client, 0, CONNECT_COMMAND, client, 0, CREATE_STREAM, client, 2, role, client, 0])


def media(client, what, step=STEP_23):
    return bytes([MEDIA, client, what | step, 0])


def wait(client, tenths):
    # The action's number is the square root of the time in hundredths of a second.
    return bytes([TIME, client, round((tenths * 10) ** 0.5)])


def session_seeds():
    start = enter(A, PUBLISH) + bytes([METADATA, A, 0x0F, 5, 6, 4, 3]) + media(A, AAC_HEADER, 0) + \
        media(A, AVC_HEADER, 0)
    frames = (media(A, AAC) + media(A, AVC)) * 3
    live = start + frames + enter(B, PLAY) + frames
    seeds = {
        "late_player": live,
        "player_first": enter(B, PLAY) + start + frames,
        "format_change": live + bytes([METADATA, A, 1, 6]) + frames,
        "codec_change": enter(A, PUBLISH) + media(A, AAC) + media(A, MP3),
        "takeover": live + enter(C, PUBLISH) + media(C, AAC) + wait(A, 26) + media(C, AAC) * 3 + frames,
        "publisher_leaves": live + bytes([CLOSE, A, 0]) + enter(C, PUBLISH) + media(C, AAC) * 2,
        "publisher_resets": live + bytes([CLOSE, A, 1]) + wait(A, 60) + enter(C, PUBLISH) + media(C, AAC),
        "held": live + media(A, AAC, STEP_1000) * 12 + wait(A, 20) + frames,
        "some_seconds": live + (media(A, AAC, STEP_40) + wait(A, 1)) * 60,
        "chunk_size": bytes([CONNECT, A, 0, CHUNK_SIZE, A, 4, WINDOW, A, 3]) + live[3:],
        "operator": live + bytes([LIST, 0, 0, LIST, 0, 1, DROP_ID, 0, B, 0, LIST, 0, 2, DROP_NAME, 0, 0, LIST, 0, 0]),
        "operator_guesses": live + bytes([CONTROL, 0, 0, 3]) + b"abc\0" + bytes([CONTROL, 0, 1, 3]) + b"abc\0" +
                            bytes([DROP_ID, 0, 200, 0, DROP_ID, 0, B, 1]),
        "player_does_not_read": live + bytes([READING, B, 3]) + frames * 4 + bytes([DROP_ID, 0, B, 0]) + frames,
        "player_reads_again": live + bytes([READING, B, 3]) + frames * 4 + bytes([READING, B, 255]) + frames,
        "player_resets_while_it_is_sent_to": live + bytes([READING, B, 0]) + frames + bytes([CLOSE, B, 1]) + frames,
        "disposed": enter(A, PUBLISH) + wait(A, 60) + wait(A, 1) + media(A, AAC) + enter(B, PLAY) + media(A, AAC),
        "two_publish": live + enter(C, PUBLISH) + media(C, AAC) * 3 + frames,
        "delete_stream": live + bytes([COMMAND, A, 4, 1]),
        "unknown": live + bytes([COMMAND, A, 5, 1, COMMAND, B, 6, 1]),
        "refused_name": enter(A, PUBLISH)[:-1] + b"\3" + enter(B, PLAY)[:-1] + b"\4",
        "no_threads": bytes([REFUSE_THREADS, 0, 1]) + enter(A, PUBLISH) + bytes([REFUSE_THREADS, 0, 2]) + enter(B, PLAY),
        "crowd": enter(A, PUBLISH) + bytes([READING, A, 0]) + bytes([CROWD, A, 255]) + wait(A, 1) * 300,
        "all_at_once": bytes(b | 0x80 if i % 3 == 0 else b for i, b in enumerate(enter(A, PUBLISH))) + frames,
        "wrong_handshake": bytes([CONNECT, A, 7, RAW, A, 0, 3]) + b"\x06ab" + bytes([CONNECT, B, 7, CLOSE, B, 0]),
    }
    for name, actions in seeds.items():
        write("session", name, b"\0" + actions)
    write("session", "stopped_at_prints", b"\4" + seeds["takeover"] + bytes([DROP_NAME | 0x80, 0, 0]))
    write("session", "cancelled_at_a_print", b"\4" + enter(A, PUBLISH) + wait(A, 1) * 6 +
          bytes([CHUNK_SIZE | 0x80, A, 4, DROP_ID, 0, A, 4]))
    write("session", "dumped", b"\3" + live)
    write("session", "table_is_full", b"\0" + b"".join(bytes([CONNECT | 0x80, i % 8, 15]) for i in range(131)) +
          wait(A, 1) * 140)


if __name__ == "__main__":
    amf_seeds()
    chunk_reader_seeds()
    round_trip_seeds()
    session_seeds()
    for folder in sorted(CORPUS.iterdir()):
        files = list(folder.iterdir())
        print(f"{folder.name}: {len(files)} seeds, {sum(f.stat().st_size for f in files)} bytes")
