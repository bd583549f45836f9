// Reassembles messages from chunks. Messages are not interleaved: between the first chunk of a message and
// its last, every chunk must be a format 3 continuation, whatever its chunk stream id says.
#include <algorithm>
#include <array>

#include "base/bytes.h"
#include "base/check.h"
#include "base/diag.h"
#include "core/connection.h"
#include "core/switches.h"
#include "rtmp/chunk_format.h"
#include "rtmp/message_types.h"
#include "rtmp/packet_dump.h"

namespace {

constexpr std::size_t MAX_CHUNK_STREAMS = 64;
constexpr std::uint8_t CONTINUATION_FMT = 3;

bool read_whole(RTMPConnection& conn, void* d, std::size_t c) {
    return conn.fd >= 0 && conn.cread(d, c) == static_cast<ssize_t>(c);
}

// The format and the chunk stream id.
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

bool read_first_header(RTMPConnection& conn, RTMP_Packet::chunk_t& chunk) REQUIRES(conn.reader_role) {
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

// What follows a basic header. first: the chunk begins a message.
bool resolve_chunk_header(RTMPConnection& conn, RTMP_Packet& pkt, bool first) REQUIRES(conn.reader_role) {
    if (conn.chunk_streams.size() >= MAX_CHUNK_STREAMS) {
        diag("RTMP: Too many streams\n");
        return false;
    }
    if (first) {
        return read_first_header(conn, pkt.chunk);
    }
    if (pkt.chunk.fmt != CONTINUATION_FMT) {
        diag("fmt=%u and not first packet!\n", unsigned{pkt.chunk.fmt});
        return false;
    }
    return true;
}

bool read_continuation_header(RTMPConnection& conn, const RTMP_Packet& pkt, std::size_t done)
    REQUIRES(conn.reader_role) {
    RTMP_Packet next;
    if (!read_basic_header(conn, next.chunk) || !resolve_chunk_header(conn, next, false)) {
        return false;
    }
    if (next.chunk.fmt != CONTINUATION_FMT) {
        // The resolver has refused it already; this holds should it ever learn to accept more.
        diag("RTMP packet error: Chunk not finished, expected type 3. %u / %u complete\n",
             static_cast<unsigned>(done), pkt.chunk.message.data_length);
        diag("Initial:\n");
        dump_packet(pkt);
        diag("Last:\n");
        dump_packet(next);
        diag("----\n");
        return false;
    }
    return true;
}

bool read_payload(RTMPConnection& conn, RTMP_Packet& pkt) REQUIRES(conn.reader_role) {
    std::size_t toread = pkt.chunk.message.data_length;
    const LinkDirection& conn_g_client = conn.conn_g_client;
    CHECK(pkt.chunk.message.data_length >= toread);
    CHECK(conn_g_client.chunk_size != uint32_t(0));
    unsigned char* dp = pkt.chunk.message.data;
    const unsigned char* const dpf = dp + toread;
    for (;;) {
        const std::size_t chunk_size = conn_g_client.chunk_size.load(std::memory_order_relaxed);
        const std::size_t todo = std::min(chunk_size, toread);
        CHECK(todo != uint32_t(0));
        // clang-format off
        CHECK((dp+todo) <= dpf);
        // clang-format on
        if (!read_whole(conn, dp, todo)) {
            return false;
        }
        dp += todo;
        toread -= todo;
        if (toread == 0) {
            return true;
        }
        if (!read_continuation_header(conn, pkt, pkt.chunk.message.data_length - toread)) {
            return false;
        }
    }
}

bool refuse_payload(const RTMP_Packet& pkt) {
    diag("Failed to alloc pkt data\n");
    dump_packet(pkt);
    return false;
}

}  // namespace

bool RTMPConnection::rtmp_read_packet(RTMP_Packet& pkt) {
    if (!read_basic_header(*this, pkt.chunk) || !resolve_chunk_header(*this, pkt, true)) {
        return false;
    }
    if (pkt.chunk.message.data != nullptr) {
        return refuse_payload(pkt);
    }
    if (pkt.chunk.message_length != 0) {
        if (!pkt.chunk.message.allocate(pkt.chunk.message_length)) {
            return refuse_payload(pkt);
        }
        if (!read_payload(*this, pkt)) {
            return false;
        }
    }
    if (opt_dbg_pkt && !is_audio_or_video(pkt.chunk.message_type_id)) {
        dump_packet(pkt);
    }
    return true;
}
