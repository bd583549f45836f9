// Relays a publisher's audio and video to the players of its stream. Main thread.
#pragma once

#include "core/connection.h"
#include "relay/stream_registry.h"

// Checks a publisher's audio or video message, saves it if it is a sequence header, and queues it for every
// player if this connection is the stream's current publisher. record belongs to publisher.stream_name.
// Returns false after printing one line if the publisher must be dropped: it does not publish, has no stream
// name, or has changed its format.
[[nodiscard]] bool relay_published_packet(RTMPConnection& publisher, const RTMP_Packet& pkt,
                                          StreamRecord& record) ON_MAIN_THREAD;
