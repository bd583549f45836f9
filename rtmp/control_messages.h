// Handles protocol control messages (chunk sizes, windows, acknowledgements) before the main thread gets
// them. Reader thread.
#pragma once

#include "core/connection.h"

// Handles a message on message stream 0 and chunk stream 2, which must be a control message. On message
// stream 0, a lower chunk stream id is a protocol violation. Ignores all other messages. Returns false if the
// lock failed, or after printing what is wrong if the server does not accept the message. Reading then ends.
[[nodiscard]] bool act_on_control_message(RTMPConnection& conn, const RTMP_Packet& pkt) ON_READER_THREAD;

// Queues an acknowledgement of all bytes read so far if one is due. Returns false if the lock failed.
[[nodiscard]] bool acknowledge_if_due(RTMPConnection& conn) ON_READER_THREAD;
