// The fan-out of a publisher's audio and video to the players of its stream. Main thread.
#pragma once

#include "core/connection.h"
#include "relay/stream_registry.h"

// Checks a publisher's audio or video message, saves it when it is a sequence header, and queues it for every player
// of the stream if this connection is the stream's publisher in force. record is that of publisher.stream_name. False,
// after one line on standard error, when the publisher is to be dropped: it does not publish, has no stream name, or
// changed its format.
[[nodiscard]] bool relay_published_packet(RTMPConnection& publisher, const RTMP_Packet& pkt,
                                          StreamRecord& record) ON_MAIN_THREAD;
