#include "rtmp/packet_queues.h"

#include <unistd.h>

#include <cstddef>
#include <deque>
#include <utility>
#include <vector>

#include "base/bytes.h"
#include "base/diag.h"
#include "rtmp/message_types.h"
#include "rtmp/packet_dump.h"

namespace {

constexpr std::size_t MAX_INCOMING_MESSAGES = 8;
constexpr useconds_t BACK_PRESSURE_SLEEP_US = 10000;

// If this many packets are waiting, acknowledgements are merged.
constexpr std::size_t CROWDED_PACKETS = 1024;
constexpr std::uint32_t ACKNOWLEDGEMENT_BYTES = 4;

// Returns an empty packet if there is no memory; the writer skips it.
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

enum class IncomingQueue { HAS_ROOM, FULL, LOCK_FAILED };

IncomingQueue look_at_incoming_queue(RTMPConnection& conn) {
    const ConnectionLock lock(conn);
    if (!lock.held()) {
        return IncomingQueue::LOCK_FAILED;
    }
    return conn.connection_in.size() >= MAX_INCOMING_MESSAGES ? IncomingQueue::FULL : IncomingQueue::HAS_ROOM;
}

}  // namespace

bool queue_outgoing(RTMPConnection& conn, OutgoingPacket&& pkt) {
    OutgoingPacket owned = std::move(pkt);
    const ConnectionLock lock(conn);
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
    const bool crowded = conn.connection_out.size() + conn.out_batch_messages >= CROWDED_PACKETS;
    if (crowded && !conn.connection_out.empty() && is_acknowledgement(conn.connection_out.back())) {
        write_be32(conn.connection_out.back().chunk.message.data, static_cast<std::uint32_t>(total_bytes));
    } else {
        conn.connection_out.push_back(std::move(pkt));
    }
    return true;
}

bool is_chunk_size_echo(const RTMP_Packet& pkt) {
    return pkt.chunk.stream_id == CONTROL_CHUNK_STREAM_ID &&
           pkt.chunk.message_type_id == MESSAGE_SET_CHUNK_SIZE;
}

bool take_outgoing(RTMPConnection& conn) {
    conn.out_batch.clear();
    const std::size_t max_messages = packets_are_dumped() ? 1 : MAX_BATCH_MESSAGES;
    const ConnectionLock lock(conn);
    if (!lock.held()) {
        return false;
    }
    std::size_t bytes = 0;
    while (!conn.connection_out.empty() && conn.out_batch.size() < max_messages) {
        OutgoingPacket& next = conn.connection_out.front();
        bytes += next.payload_bytes();
        if (bytes > MAX_BATCH_BYTES && !conn.out_batch.empty()) {
            break;
        }
        const bool last = is_chunk_size_echo(next);
        conn.out_batch.push_back(std::move(next));
        conn.connection_out.pop_front();
        if (last) {
            break;
        }
    }
    conn.out_batch_messages = conn.out_batch.size();
    return !conn.out_batch.empty();
}

bool RTMPConnection::add_to_incoming_queue(RTMP_Packet&& pkt) {
    {
        const ConnectionLock lock(*this);
        if (lock.held()) {
            connection_in.push_back(std::move(pkt));
            return true;
        }
    }
    return refuse("Failure to add to queue\n");
}

bool wait_for_room_in_incoming_queue(RTMPConnection& conn) {
    for (;;) {
        const IncomingQueue queue = look_at_incoming_queue(conn);
        if (queue != IncomingQueue::FULL) {
            return queue == IncomingQueue::HAS_ROOM;
        }
        usleep(BACK_PRESSURE_SLEEP_US);
    }
}
