// Encodes and decodes chunk headers. No I/O.
//
//   basic header                        message header
//   +--------+                          format 0  timestamp 3 | length 3 | type 1 | message stream id 4 (LE)
//   |fmt| id |  id 2..63                format 1  delta 3     | length 3 | type 1
//   +--------+--------+                 format 2  delta 3
//   |fmt|  0 | id-64  |  id 64..319     format 3  nothing
//   +--------+--------+--------+
//   |fmt|  1 |  id-64 (LE)     |
//   +--------+--------+--------+
//
// If a format 0 timestamp is 0xFFFFFF, the actual timestamp follows the message header in 4 bytes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "rtmp/rtmp_packet.h"

constexpr std::uint32_t DEFAULT_CHUNK_SIZE = 128;
constexpr std::uint8_t FULL_HEADER_FMT = 0;   // the first chunk of every message that the server writes
constexpr std::uint8_t CONTINUATION_FMT = 3;  // a further chunk of the current message
constexpr std::uint32_t EXTENDED_TIMESTAMP = 0xFFFFFF;
constexpr std::size_t MAX_BASIC_HEADER_BYTES = 3;
constexpr std::size_t MAX_MESSAGE_HEADER_BYTES = 15;

// The state of a chunk stream after its last message header, for the compressed header formats.
struct ChunkStreamState {
    std::uint32_t timestamp = 0;  // absolute
    std::uint32_t message_length = 0;
    std::uint8_t message_type_id = 0;
    std::uint32_t message_stream_id = 0;
    std::uint32_t timestamp_delta = 0;  // 0 after a format 0 header
};

// Returns the length of a message header of format 0..3, without an extended timestamp.
[[nodiscard]] constexpr std::size_t message_header_bytes(std::uint8_t fmt) {
    constexpr std::array<std::size_t, 4> BYTES{11, 7, 3, 0};
    return BYTES[fmt & 3U];
}

// Whether a 4-byte extended timestamp follows a message header. intended: only format 0 has one; in formats 1
// and 2, 0xFFFFFF is an ordinary delta.
[[nodiscard]] bool has_extended_timestamp(std::uint8_t fmt, const unsigned char* header);

// Resolves a message header against its chunk stream: updates state, then sets timestamp, message_length,
// message_type_id and message_stream_id of chunk from it. header holds message_header_bytes(fmt) bytes;
// extended_timestamp is used only if has_extended_timestamp(). Timestamps wrap.
void resolve_message_header(std::uint8_t fmt, const unsigned char* header, std::uint32_t extended_timestamp,
                            ChunkStreamState& state, RTMP_Packet::chunk_t& chunk);

// Writes a basic header for chunk stream id 2..65599 at d, which has room for MAX_BASIC_HEADER_BYTES. Returns
// its length. The server writes only formats 0 and 3.
[[nodiscard]] std::size_t write_basic_header(unsigned char* d, std::uint8_t fmt,
                                             std::uint32_t chunk_stream_id);

// Writes a format 0 message header at d, which has room for MAX_MESSAGE_HEADER_BYTES. Returns its length: 11,
// or 15 with an extended timestamp. The length field is the low 24 bits of message_length.
[[nodiscard]] std::size_t write_message_header(unsigned char* d, const RTMP_Packet::chunk_t& chunk);
