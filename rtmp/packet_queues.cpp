#include "rtmp/packet_queues.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "base/bytes.h"
#include "base/diag.h"
#include "rtmp/message_types.h"

namespace {

constexpr std::size_t MAX_INCOMING_MESSAGES = 8;
constexpr useconds_t BACK_PRESSURE_SLEEP_US = 10000;

// From this many waiting packets on, acknowledgements no longer pile up.
constexpr std::size_t CROWDED_PACKETS = 1024;
constexpr std::uint32_t ACKNOWLEDGEMENT_BYTES = 4;

// An empty packet when there is no memory: the writer skips it.
RTMP_Packet make_acknowledgement(std::uint64_t total_bytes) {
    RTMP_Packet pkt;
    pkt.chunk.stream_id = CONTROL_CHUNK_STREAM_ID;
    pkt.chunk.message_type_id = MESSAGE_ACKNOWLEDGEMENT;
    if (pkt.chunk.message.allocate(ACKNOWLEDGEMENT_BYTES)) {
        write_be32(pkt.chunk.message.data, static_cast<std::uint32_t>(total_bytes));
    }
    return pkt;
}

bool is_acknowledgement(const RTMP_Packet& pkt) {
    return pkt.chunk.stream_id == CONTROL_CHUNK_STREAM_ID &&
           pkt.chunk.message_type_id == MESSAGE_ACKNOWLEDGEMENT &&
           pkt.chunk.message.data_length == ACKNOWLEDGEMENT_BYTES;
}

bool produces_bytes(const RTMP_Packet& pkt) {
    return pkt.chunk.message.data_length != 0;
}

// True or false: whether the queue is to be waited for. Sets failed when the lock could not be taken.
bool incoming_queue_is_full(RTMPConnection& conn, bool& failed) {
    const ConnectionLock lock(conn);
    failed = !lock.held();
    return !failed && conn.connection_in.size() >= MAX_INCOMING_MESSAGES;
}

}  // namespace

bool queue_outgoing(RTMPConnection& conn, RTMP_Packet&& pkt, const char* unlock_expression) {
    RTMP_Packet owned = std::move(pkt);
    const ConnectionLock lock(conn, unlock_expression);
    if (!lock.held()) {
        return false;
    }
    conn.connection_out.push_back(std::move(owned));
    return true;
}

bool queue_acknowledgement(RTMPConnection& conn, std::uint64_t total_bytes) {
    RTMP_Packet pkt = make_acknowledgement(total_bytes);
    const ConnectionLock lock(conn);
    if (!lock.held()) {
        return false;
    }
    if (conn.connection_out.size() >= CROWDED_PACKETS && is_acknowledgement(conn.connection_out.back())) {
        write_be32(conn.connection_out.back().chunk.message.data, static_cast<std::uint32_t>(total_bytes));
    } else {
        conn.connection_out.push_back(std::move(pkt));
    }
    return true;
}

Outgoing take_outgoing(RTMPConnection& conn) {
    const ConnectionLock lock(conn);
    if (!lock.held() || conn.connection_out.empty()) {
        return Outgoing::NONE;
    }
    conn.out_pkt.chunk.message.release();
    conn.out_pkt = std::move(conn.connection_out.front());
    conn.connection_out.pop_front();
    const bool more_behind =
        produces_bytes(conn.out_pkt) &&
        std::any_of(conn.connection_out.begin(), conn.connection_out.end(), produces_bytes);
    return more_behind ? Outgoing::MORE_BEHIND : Outgoing::LAST;
}

bool RTMPConnection::add_to_incoming_queue(RTMP_Packet&& pkt) {
    {
        const ConnectionLock lock(*this);
        if (lock.held()) {
            connection_in.push_back(std::move(pkt));
            return true;
        }
    }
    diag("Failure to add to queue\n");
    return false;
}

bool wait_for_room_in_incoming_queue(RTMPConnection& conn) {
    bool failed = false;
    while (incoming_queue_is_full(conn, failed)) {
        usleep(BACK_PRESSURE_SLEEP_US);
    }
    return !failed;
}
