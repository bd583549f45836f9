// One codec per stream and kind of media: what a publisher is locked on, and whether a message breaks it.
// Pure.
#pragma once

#include <cstdint>

#include "rtmp/rtmp_packet.h"

constexpr std::int32_t NO_CODEC_LOCK = -1;

enum class CodecLock {
    KEPT,            // nothing to say
    FROM_METADATA,   // locked, or locked anew, on the codec id of the metadata
    FROM_PAYLOAD,    // locked on the codec nibble of the first message
    FORMAT_CHANGED,  // the message's codec nibble is not the locked one
};

// Decides for a publisher's audio or video message; lock_type is updated where the result says so.
// metadata_codec_id 0: the metadata tells none, so the first message decides, and messages without a codec
// nibble (fewer than 2 bytes) pass. A changed metadata codec id simply locks anew.
[[nodiscard]] CodecLock check_codec_lock(std::int32_t& lock_type, std::uint32_t metadata_codec_id,
                                         const RTMP_Packet& pkt);

// Decides for a player: it takes over the publisher's lock once; false when it has another one.
[[nodiscard]] bool agree_on_codec(std::int32_t& player_lock_type, std::int32_t publisher_lock_type);

// The four bytes of a codec id as text, up to the first zero byte: a FourCC, or nothing readable for small
// numbers.
struct FourCcText {
    char text[5];
};
[[nodiscard]] FourCcText fourcc_text(std::uint32_t codec_id);
