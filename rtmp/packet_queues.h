// The two queues of a connection. Each access is under its lock, and short: a batch of 64 moves is the longest.
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
[[nodiscard]] bool queue_outgoing(RTMPConnection& conn, OutgoingPacket&& pkt) EXCLUDES(conn.mutex);

// Queues an acknowledgement of total_bytes (their low 32 bits). Where a client does not read and packets have
// piled up, an acknowledgement at the back of the queue is overwritten instead: only the latest count is of
// use.
[[nodiscard]] bool queue_acknowledgement(RTMPConnection& conn, std::uint64_t total_bytes) ON_READER_THREAD
    EXCLUDES(conn.mutex);

// Whether sending this message changes the output chunk size: the echo of the client's.
[[nodiscard]] bool is_chunk_size_echo(const RTMP_Packet& pkt);

// Moves messages from the front of connection_out into out_batch, which is emptied first. A batch ends after the echo
// of a chunk size, so that one chunk size holds for all of it; while packets are dumped it is a single message, so
// that each dump is followed by its bytes. False when nothing waits or the lock failed. Writer thread.
[[nodiscard]] bool take_outgoing(RTMPConnection& conn) ON_WRITER_THREAD EXCLUDES(conn.mutex);

// Sleeps while the main thread is behind with connection_in, so that the client's TCP window fills instead of
// memory. False when the lock failed. Reader thread.
[[nodiscard]] bool wait_for_room_in_incoming_queue(RTMPConnection& conn) ON_READER_THREAD
    EXCLUDES(conn.mutex);
