// One pass of the main loop over one connection: a requested close, then its queued messages, then its
// threads that have ended.
#include <cstdint>
#include <deque>

#include "amf/amf_read.h"
#include "amf/amf_value.h"
#include "app/command_table.h"
#include "app/metadata.h"
#include "app/publisher_media.h"
#include "base/check.h"
#include "base/clock.h"
#include "base/diag.h"
#include "core/connection.h"
#include "core/heap.h"
#include "rtmp/message_types.h"

namespace {

// The turn of one connection in a pass ends at the first of these limits. A message that is being handled
// when the time runs out is handled completely. The cost of messages differs by a factor of a thousand, and
// one connection's expensive messages must not block the others.
constexpr int MAX_MESSAGES_PER_TURN = 1000;
constexpr std::uint64_t TURN_US = 20000;

// A decoded message takes up to 73 times its size in memory, so one below this size takes less than 300 KB.
// Real clients send smaller ones.
constexpr std::uint32_t LARGE_VALUES_BYTES = 4096;

bool run_command_message(RTMPConnection& conn, const RTMP_Packet& pkt) REQUIRES(conn.mutex, MAIN_THREAD) {
    const RTMP_Packet::chunk_t::message_t& message = pkt.chunk.message;
    if (message.data_length == 0) {
        return true;
    }
    if (message.data == nullptr) {
        return false;
    }
    const unsigned char* s = message.data;
    const unsigned char* const sf = s + message.data_length;
    AMF_Value name;
    // If the first value has no text, the name is empty and matches no command.
    return AMF_ReadValue(name, s, sf) && run_command(conn, pkt, name.string, {s, sf});
}

bool holds_large_values(const RTMP_Packet& pkt) {
    return (pkt.chunk.message_type_id == MESSAGE_AMF0_COMMAND ||
            pkt.chunk.message_type_id == MESSAGE_AMF0_DATA) &&
           pkt.chunk.message.data_length >= LARGE_VALUES_BYTES;
}

// Handles the message at the front of the queue without removing it. Returns false if it is held back.
bool handle_message(RTMPConnection& conn, RTMP_Packet& pkt) REQUIRES(conn.mutex, MAIN_THREAD) {
    switch (pkt.chunk.message_type_id) {
        case MESSAGE_AMF0_COMMAND:
            if (!run_command_message(conn, pkt)) {
                diag("AMF0 error command\n");
                conn.close_requested = true;
            }
            return true;
        case MESSAGE_AMF0_DATA:
            if (!handle_data_message(conn, pkt)) {
                diag("AMF0 error notify\n");
                conn.close_requested = true;
            }
            return true;
        case MESSAGE_AUDIO:
        case MESSAGE_VIDEO:
            return handle_media(conn, pkt) == MediaResult::DONE;
        default:
            return true;
    }
}

// Returns false when this connection's turn is over: the queue is empty, the front message is held back, or
// the lock failed.
bool dispatch_front_message(RTMPConnection& conn) ON_MAIN_THREAD {
    // The lock is held while the message is handled, so the reader thread cannot move the front of the queue.
    const ConnectionLock lock(conn);
    if (!lock.held() || conn.connection_in.empty()) {
        return false;
    }
    std::deque<RTMP_Packet>& connection_in = conn.connection_in;
    RTMP_Packet& in_pkt = connection_in.front();
    if (!handle_message(conn, in_pkt)) {
        return false;
    }
    if (holds_large_values(in_pkt)) {
        expect_free_memory();
    }
    CHECK(&in_pkt == &connection_in.front());
    connection_in.pop_front();
    return true;
}

}  // namespace

void RTMPConnection::idle() {
    if (close_requested) {
        close_connection();
    }
    if (fd >= 0) {
        // intended: a message that requests the close does not end the turn.
        const std::uint64_t began_us = monotonic_clock_us();
        for (int left = MAX_MESSAGES_PER_TURN; left > 0 && dispatch_front_message(*this); --left) {
            if (monotonic_clock_us() - began_us >= TURN_US) {
                break;
            }
        }
    }
    reap_dead_threads();
}
