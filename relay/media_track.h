// A connection's state for one kind of media. Each connection has two tracks, `audio` and
// `video`. Main thread.
#pragma once

#include <cstdint>

#include "relay/codec_lock.h"
#include "rtmp/rtmp_packet.h"

struct MediaTrack {
    // The current codec; never reset.
    std::int32_t lock_type = NO_CODEC_LOCK;
    // On a publisher: the last sequence header received; empty if none.
    RTMP_Packet seq_header;
    // On a player: the first message of this kind has been relayed; no saved header is sent after that.
    bool header_delivered = false;
};
