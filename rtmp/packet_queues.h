// The two queues of a connection. Every access holds the lock. The connection's own threads hold it for at
// most MAX_BATCH_MESSAGES moves. The main thread also holds it while it handles a message.
//
//   reader thread -- connection_in --> main thread
//   reader thread, main thread -- connection_out --> writer thread
//
// If the lock fails, the function returns false, and a packet meant for connection_out is released.
#pragma once

#include <cstdint>

#include "core/connection.h"

// Appends a packet to connection_out. Any thread that does not hold the lock; code that holds it appends to
// connection_out directly.
[[nodiscard]] bool queue_outgoing(RTMPConnection& conn, OutgoingPacket&& pkt) EXCLUDES(conn.mutex);

// Queues an acknowledgement of total_bytes (the low 32 bits). If many packets are waiting because the
// client does not read, overwrites an acknowledgement at the back of the queue instead, since only the
// latest count matters.
[[nodiscard]] bool queue_acknowledgement(RTMPConnection& conn, std::uint64_t total_bytes) ON_READER_THREAD
    EXCLUDES(conn.mutex);

// Whether this message is the echo of the client's chunk size; sending it changes the output chunk size.
[[nodiscard]] bool is_chunk_size_echo(const RTMP_Packet& pkt);

// Clears out_batch and moves messages from the front of connection_out into it. A batch ends after the echo
// of a chunk size, so one chunk size applies to the whole batch. While packets are dumped, a batch is a
// single message, so each message is sent directly after its dump. Returns false if no message is waiting or
// the lock failed. Writer thread.
[[nodiscard]] bool take_outgoing(RTMPConnection& conn) ON_WRITER_THREAD EXCLUDES(conn.mutex);

// Sleeps while connection_in is full, so that TCP flow control stops the client before memory fills up.
// Returns false if the lock failed. Reader thread.
[[nodiscard]] bool wait_for_room_in_incoming_queue(RTMPConnection& conn) ON_READER_THREAD
    EXCLUDES(conn.mutex);
