// A connection's state for one kind of media. Each connection has two tracks, `audio` and
// `video`. Main thread.
#pragma once

#include <cstdint>

#include "relay/codec_lock.h"
#include "rtmp/rtmp_packet.h"

struct MediaTrack {
    // audio_lock_type, video_lock_type: the current codec; never reset
    std::int32_t lock_type = NO_CODEC_LOCK;
    // audio_seq_header, video_seq_header: on a publisher, the last one received; empty if none
    RTMP_Packet seq_header;
    // on a player: a message of this kind, and any saved header before it, has been queued
    bool header_delivered = false;
};
