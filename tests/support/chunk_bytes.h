// RTMP chunks as bytes: every header format and basic header form. No rule is enforced, so tests can send
// invalid data.
#pragma once

#include <cstdint>
#include <optional>

#include "tests/support/wire_bytes.h"

constexpr std::uint8_t MSG_SET_CHUNK_SIZE = 1;
constexpr std::uint8_t MSG_ACKNOWLEDGEMENT = 3;
constexpr std::uint8_t MSG_USER_CONTROL = 4;
constexpr std::uint8_t MSG_WINDOW_ACK_SIZE = 5;
constexpr std::uint8_t MSG_AUDIO = 8;
constexpr std::uint8_t MSG_VIDEO = 9;
constexpr std::uint8_t MSG_DATA = 18;
constexpr std::uint8_t MSG_COMMAND = 20;

// The chunk stream of protocol control messages.
constexpr std::uint32_t CONTROL_CSID = 2;
constexpr std::uint32_t DEFAULT_CHUNK_SIZE = 128;
constexpr std::uint32_t EXTENDED_TIMESTAMP = 0xFFFFFF;

struct OutMessage {
    std::uint8_t type = MSG_COMMAND;
    Bytes payload = {};
    std::uint32_t csid = 3;
    std::uint32_t timestamp = 0;  // format 0: absolute; formats 1 and 2: delta
    std::uint32_t stream_id = 0;  // message stream id
    int fmt = 0;
    std::optional<std::uint32_t> length = std::nullopt;  // if set, a false payload length for the header
};

// Uses the shortest form for the id, or the form of size bytes (1, 2 or 3) if given.
Bytes basic_header(int fmt, std::uint32_t csid, int size = 0);

// Returns what follows the basic header: 11, 7, 3 or 0 bytes by format, and 4 more for a format 0 timestamp
// of 0xFFFFFF or more. Formats 1 and 2 carry only the low 24 bits of the delta.
Bytes message_header(const OutMessage& message);

// Returns the whole message in chunks, continued with format 3.
Bytes chunked(const OutMessage& message, std::uint32_t chunk_size = DEFAULT_CHUNK_SIZE);
