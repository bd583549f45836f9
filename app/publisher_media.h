// Handles a publisher's audio and video: stream id, pacing and takeover, then the relay. Main thread.
#pragma once

#include <cstdint>

#include "core/connection.h"

// Pacing: media is relayed no faster than real time, counted from the first media message examined. Returns
// the highest timestamp that may pass now. 32-bit arithmetic, wraps.
[[nodiscard]] std::uint32_t pacing_limit(std::uint64_t av_start_us, std::uint32_t av_start_ts,
                                         std::uint64_t now_us);

enum class MediaResult {
    DONE,  // remove the message from the queue
    HELD,  // it is ahead of real time: leave it at the front and try again on the next pass
};

// Handles an audio or video message at the front of a connection's queue. Ignores it if the connection is not
// publishing. May make the connection the publisher of its stream and drop a publisher that has stalled.
[[nodiscard]] MediaResult handle_media(RTMPConnection& conn, RTMP_Packet& pkt)
    REQUIRES(conn.mutex, MAIN_THREAD);
