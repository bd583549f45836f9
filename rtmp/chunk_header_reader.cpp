#include "rtmp/chunk_header_reader.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>

#include "base/bytes.h"
#include "base/diag.h"
#include "rtmp/socket_io.h"

namespace {

constexpr std::size_t MAX_CHUNK_STREAMS = 64;

bool read_first_header(RTMPConnection& conn, RTMP_Packet::chunk_t& chunk) ON_READER_THREAD {
    ChunkStreamState& state = conn.chunk_streams.try_emplace(chunk.stream_id).first->second;
    std::array<unsigned char, MAX_MESSAGE_HEADER_BYTES> header{};
    const std::size_t header_bytes = message_header_bytes(chunk.fmt);
    if (header_bytes != 0 && !read_whole(conn, header.data(), header_bytes)) {
        return false;
    }
    std::uint32_t extended_timestamp = 0;
    if (has_extended_timestamp(chunk.fmt, header.data())) {
        if (!read_whole(conn, header.data() + header_bytes, 4)) {
            return false;
        }
        extended_timestamp = read_be32(header.data() + header_bytes);
    }
    resolve_message_header(chunk.fmt, header.data(), extended_timestamp, state, chunk);
    return true;
}

}  // namespace

bool read_basic_header(RTMPConnection& conn, RTMP_Packet::chunk_t& chunk) {
    unsigned char first = 0;
    if (!read_whole(conn, &first, 1)) {
        return false;
    }
    chunk.fmt = first >> 6;
    chunk.stream_id = first & 63U;
    if (chunk.stream_id > 1) {
        return true;
    }
    std::array<unsigned char, 2> more{};
    const std::size_t more_bytes = chunk.stream_id + 1;
    if (!read_whole(conn, more.data(), more_bytes)) {
        return false;
    }
    chunk.stream_id = std::uint32_t{more[1]} * 256 + more[0] + 64;
    return true;
}

bool resolve_chunk_header(RTMPConnection& conn, RTMP_Packet& pkt, ChunkPosition position) {
    if (conn.chunk_streams.size() >= MAX_CHUNK_STREAMS) {
        return refuse("RTMP: Too many streams\n");
    }
    if (position == ChunkPosition::FIRST) {
        return read_first_header(conn, pkt.chunk);
    }
    if (pkt.chunk.fmt != CONTINUATION_FMT) {
        return refuse("fmt=%u and not first packet!\n", unsigned{pkt.chunk.fmt});
    }
    return true;
}
