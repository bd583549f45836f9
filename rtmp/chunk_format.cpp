#include "rtmp/chunk_format.h"

#include "base/bytes.h"

bool has_extended_timestamp(std::uint8_t fmt, const unsigned char* header) {
    return fmt == 0 && read_be24(header) == EXTENDED_TIMESTAMP;
}

void resolve_message_header(std::uint8_t fmt, const unsigned char* header, std::uint32_t extended_timestamp,
                            ChunkStreamState& state, RTMP_Packet::chunk_t& chunk) {
    if (fmt == 0) {
        state.timestamp = has_extended_timestamp(fmt, header) ? extended_timestamp : read_be24(header);
        state.timestamp_delta = 0;
        state.message_stream_id = read_le32(header + 7);
    } else {
        if (fmt != 3) {
            state.timestamp_delta = read_be24(header);
        }
        state.timestamp += state.timestamp_delta;
    }
    if (fmt <= 1) {
        state.message_length = read_be24(header + 3);
        state.message_type_id = header[6];
    }
    chunk.timestamp = state.timestamp;
    chunk.message_length = state.message_length;
    chunk.message_type_id = state.message_type_id;
    chunk.message_stream_id = state.message_stream_id;
}

std::size_t write_basic_header(unsigned char* d, std::uint8_t fmt, std::uint32_t chunk_stream_id) {
    const auto fmt_bits = static_cast<unsigned char>(fmt << 6);
    if (chunk_stream_id < 64) {
        d[0] = static_cast<unsigned char>(fmt_bits | chunk_stream_id);
        return 1;
    }
    const std::uint32_t rest = chunk_stream_id - 64;
    if (chunk_stream_id < 320) {
        d[0] = fmt_bits;
        d[1] = static_cast<unsigned char>(rest);
        return 2;
    }
    d[0] = fmt_bits | 1U;
    d[1] = static_cast<unsigned char>(rest & 0xFF);
    d[2] = static_cast<unsigned char>(rest >> 8);
    return 3;
}

std::size_t write_message_header(unsigned char* d, const RTMP_Packet::chunk_t& chunk) {
    const bool extended = chunk.timestamp >= EXTENDED_TIMESTAMP;
    write_be24(d, extended ? EXTENDED_TIMESTAMP : chunk.timestamp);
    write_be24(d + 3, chunk.message_length);
    d[6] = chunk.message_type_id;
    write_le32(d + 7, chunk.message_stream_id);
    if (extended) {
        write_be32(d + 11, chunk.timestamp);
    }
    return extended ? 15 : 11;
}
