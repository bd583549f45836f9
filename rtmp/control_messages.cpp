#include "rtmp/control_messages.h"

#include <atomic>
#include <cstdint>
#include <utility>

#include "base/bytes.h"
#include "base/diag.h"
#include "rtmp/message_types.h"
#include "rtmp/packet_queues.h"

namespace {

constexpr std::uint32_t MAX_CHUNK_SIZE = 0x400000;
constexpr std::uint32_t CONTROL_VALUE_BYTES = 4;

// Returns false if the payload is too short to contain a size, or if the size is 0 or too large.
bool read_chunk_size(const RTMP_Packet::chunk_t::message_t& message, std::uint32_t& chunk_size) {
    if (message.data_length < CONTROL_VALUE_BYTES) {
        return false;
    }
    chunk_size = read_be32(message.data);
    if (chunk_size - 1 >= MAX_CHUNK_SIZE) {
        return refuse("RTMP: New chunk size %lu rejected\n", static_cast<unsigned long>(chunk_size));
    }
    return true;
}

// intended: the server echoes the client's chunk size and uses it for its own chunks from then on. The echo
// and everything queued before it are sent with the old size: the writer thread adopts the new one after
// sending the echo.
bool accept_chunk_size(RTMPConnection& conn, const RTMP_Packet& pkt) ON_READER_THREAD {
    std::uint32_t chunk_size = 0;
    if (!read_chunk_size(pkt.chunk.message, chunk_size)) {
        return refuse("Chunk size rejected\n");
    }
    diag("RTMP: New chunk size %lu accepted\n", static_cast<unsigned long>(chunk_size));
    conn.conn_g_client.chunk_size = chunk_size;

    // Do not print until the echo is queued: it is a local variable, so there must be no cancellation point.
    RTMP_Packet echo;
    echo.copy_header_from(pkt);
    // If there is no memory, the echo stays empty: nothing is sent, and the old output size stays.
    static_cast<void>(pkt.chunk.message.copy_to(echo.chunk.message));
    return queue_outgoing(conn, std::move(echo));
}

void accept_window_ack_size(RTMPConnection& conn,
                            const RTMP_Packet::chunk_t::message_t& message) ON_READER_THREAD {
    if (message.data_length < CONTROL_VALUE_BYTES) {
        return;
    }
    const std::uint32_t window = read_be32(message.data);
    conn.conn_g_server.window_ack_size = window;
    diag("RTMP: Window ack size %lu\n", static_cast<unsigned long>(window));
}

}  // namespace

bool act_on_control_message(RTMPConnection& conn, const RTMP_Packet& pkt) {
    if (pkt.chunk.message_stream_id != 0 || pkt.chunk.stream_id > CONTROL_CHUNK_STREAM_ID) {
        return true;
    }
    if (pkt.chunk.stream_id < CONTROL_CHUNK_STREAM_ID) {
        return refuse("RTMP: control stream unexpected chunk stream ID %lu\n",
                      static_cast<unsigned long>(pkt.chunk.stream_id));
    }
    switch (pkt.chunk.message_type_id) {
        case MESSAGE_SET_CHUNK_SIZE:
            return accept_chunk_size(conn, pkt);
        case MESSAGE_ACKNOWLEDGEMENT:
        case MESSAGE_USER_CONTROL:
            return true;
        case MESSAGE_WINDOW_ACK_SIZE:
            accept_window_ack_size(conn, pkt.chunk.message);
            return true;
        default:
            return refuse("RTMP: unexpected control stream message type 0x%02x\n",
                          unsigned{pkt.chunk.message_type_id});
    }
}

bool acknowledge_if_due(RTMPConnection& conn) {
    auto& received = conn.conn_g_server;
    if (!received.ack_flag && !window_is_full(received.window_ack_size, received.bytes_unacked)) {
        return true;
    }
    if (!queue_acknowledgement(conn, received.bytes_total.load(std::memory_order_relaxed))) {
        return false;
    }
    received.ack_flag = false;
    received.bytes_unacked = unacked_after_acknowledgement(received.window_ack_size, received.bytes_unacked);
    return true;
}
