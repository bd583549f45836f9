// Protocol control messages: chunk sizes, windows and acknowledgements, before the main thread sees a message. Reader
// thread.
#pragma once

#include "core/connection.h"

// Does what a message on message stream 0 asks of the transport; other messages are ignored. False,
// after one line, when the message breaks a rule, and when the lock failed: the reading ends.
[[nodiscard]] bool act_on_control_message(RTMPConnection& conn, const RTMP_Packet& pkt) ON_READER_THREAD;

// Queues an acknowledgement of all bytes read so far when one is due. False when the lock failed.
[[nodiscard]] bool acknowledge_if_due(RTMPConnection& conn) ON_READER_THREAD;
