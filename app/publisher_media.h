// A publisher's audio and video on the main thread: stream id, pacing, takeover, and on to the relay. Main
// thread.
#pragma once

#include "core/connection.h"

// The rules, as values.
//
// Media goes out no faster than real time, counted from the first media message examined: the highest
// timestamp that may pass now. 32-bit arithmetic, wraps.
[[nodiscard]] std::uint32_t pacing_limit(std::uint64_t av_start_us, std::uint32_t av_start_ts,
                                         std::uint64_t now_us);

enum class MediaResult {
    DONE,  // take the message off the queue
    HELD,  // it is ahead of real time: leave it at the front, look again on the next pass
};

// Acts on an audio or video message at the front of a connection's queue. A message of a connection that does
// not publish is ignored. May make the connection the publisher of its stream, dropping one that has stalled.
[[nodiscard]] MediaResult handle_media(RTMPConnection& conn, RTMP_Packet& pkt)
    REQUIRES(conn.mutex, MAIN_THREAD);
