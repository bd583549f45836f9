// Reassembles messages from chunks. Messages are not interleaved: all chunks of a message after the first
// must be format 3 continuations, whatever their chunk stream ids.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "base/check.h"
#include "base/diag.h"
#include "core/connection.h"
#include "rtmp/chunk_header_reader.h"
#include "rtmp/packet_dump.h"
#include "rtmp/socket_io.h"

namespace {

bool read_continuation_header(RTMPConnection& conn, const RTMP_Packet& pkt,
                              std::size_t complete_bytes) ON_READER_THREAD {
    RTMP_Packet next;
    if (!read_basic_header(conn, next.chunk) || !resolve_chunk_header(conn, next, ChunkPosition::FURTHER)) {
        return false;
    }
    if (next.chunk.fmt != CONTINUATION_FMT) {
        // resolve_chunk_header has already refused this; the test guards against changes there.
        diag("RTMP packet error: Chunk not finished, expected type 3. %u / %u complete\n",
             static_cast<unsigned>(complete_bytes), pkt.chunk.message.data_length);
        diag("Initial:\n");
        dump_packet(pkt);
        diag("Last:\n");
        dump_packet(next);
        diag("----\n");
        return false;
    }
    return true;
}

// Reads the next chunk; toread bytes of the message remain. Returns the length of the chunk, or 0 if the
// client closes first.
std::size_t read_chunk(RTMPConnection& conn, const RTMP_Packet& pkt, std::size_t toread) ON_READER_THREAD {
    const RTMP_Packet::chunk_t::message_t& message = pkt.chunk.message;
    unsigned char* const dp = message.data + (pkt.chunk.message_length - toread);
    const unsigned char* const dpf = message.data + message.data_length;
    const std::size_t chunk_size = conn.conn_g_client.chunk_size;
    const std::size_t todo = std::min(chunk_size, toread);
    CHECK(todo != uint32_t(0));
    // clang-format off
    CHECK((dp+todo) <= dpf);
    // clang-format on
    return read_whole(conn, dp, todo) ? todo : 0;
}

bool read_payload(RTMPConnection& conn, const RTMP_Packet& pkt) ON_READER_THREAD {
    std::size_t toread = pkt.chunk.message_length;
    const ClientSide& conn_g_client = conn.conn_g_client;
    CHECK(pkt.chunk.message.data_length >= toread);
    CHECK(conn_g_client.chunk_size != uint32_t(0));
    for (;;) {
        const std::size_t chunk_bytes = read_chunk(conn, pkt, toread);
        if (chunk_bytes == 0) {
            return false;
        }
        toread -= chunk_bytes;
        if (toread == 0) {
            return true;
        }
        if (!read_continuation_header(conn, pkt, pkt.chunk.message_length - toread)) {
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
    if (!read_basic_header(*this, pkt.chunk) || !resolve_chunk_header(*this, pkt, ChunkPosition::FIRST)) {
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
    dump_read_packet(pkt);
    return true;
}
