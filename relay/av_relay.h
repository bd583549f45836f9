// The fan-out of a publisher's audio and video to the players of its stream. Main thread.
#pragma once

#include "core/connection.h"

// Checks a publisher's audio or video message, saves it when it is a sequence header, and queues a copy for
// every player of the stream if this connection is the stream's publisher in force. False, after one line on
// standard error, when the publisher is to be dropped: it does not publish, has no stream name, or changed
// its format.
[[nodiscard]] bool relay_published_packet(RTMPConnection& publisher, RTMP_Packet& pkt) ON_MAIN_THREAD;
