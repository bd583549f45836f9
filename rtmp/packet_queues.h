// The two queues of a connection, each access under its lock for a few instructions.
//
//   reader thread -- connection_in --> main thread
//   reader thread, main thread -- connection_out --> writer thread
//
// A packet that cannot be queued because the lock failed is released; false is how the producer hears of it.
#pragma once

#include <cstdint>

#include "core/connection.h"

// Moves a packet onto the back of connection_out. Any thread that does not hold the lock; code that does
// appends to connection_out itself.
[[nodiscard]] bool queue_outgoing(RTMPConnection& conn, RTMP_Packet&& pkt,
                                  const char* unlock_expression = "connection_io_unlock()")
    EXCLUDES(conn.mutex);

// Queues an acknowledgement of total_bytes (their low 32 bits). Where a client does not read and packets have
// piled up, an acknowledgement at the back of the queue is overwritten instead: only the latest count is of
// use.
[[nodiscard]] bool queue_acknowledgement(RTMPConnection& conn, std::uint64_t total_bytes)
    EXCLUDES(conn.mutex);

// What the writer thread found.
enum class Outgoing {
    NONE,         // nothing waits, or the lock failed: sleep and ask again
    LAST,         // out_pkt was filled, and nothing behind it will produce bytes
    MORE_BEHIND,  // out_pkt was filled, and so will be another one at once
};

// Moves the front of connection_out into out_pkt, whose old payload is released. Writer thread.
[[nodiscard]] Outgoing take_outgoing(RTMPConnection& conn) REQUIRES(conn.writer_role) EXCLUDES(conn.mutex);

// Sleeps while the main thread is behind with connection_in, so that the client's TCP window fills instead of
// memory. False when the lock failed. Reader thread.
[[nodiscard]] bool wait_for_room_in_incoming_queue(RTMPConnection& conn) EXCLUDES(conn.mutex);
