// Each stream has one codec per kind of media. These functions lock a publisher to its codec and detect
// a change. Pure.
#pragma once

#include <cstdint>

#include "rtmp/rtmp_packet.h"

constexpr std::int32_t NO_CODEC_LOCK = -1;

enum class CodecLock {
    KEPT,            // unchanged
    FROM_METADATA,   // locked, possibly again, to the codec id of the metadata
    FROM_PAYLOAD,    // locked to the codec nibble of the first message
    FORMAT_CHANGED,  // the message's codec nibble is not the locked one
};

// Checks a publisher's audio or video message and updates lock_type if the result says so. If
// metadata_codec_id is 0, the metadata gives no codec: the first message sets the lock, and messages of fewer
// than 2 bytes pass unexamined. A changed metadata_codec_id replaces the lock.
[[nodiscard]] CodecLock check_codec_lock(std::int32_t& lock_type, std::uint32_t metadata_codec_id,
                                         const RTMP_Packet& pkt);

// Checks a player's lock. A player without a lock adopts the publisher's. Returns false if the two differ.
[[nodiscard]] bool agree_on_codec(std::int32_t& player_lock_type, std::int32_t publisher_lock_type);

// The four bytes of a codec id as text, up to the first zero byte. This is a FourCC, or empty for
// small numbers.
struct FourCcText {
    char text[5];
};
[[nodiscard]] FourCcText fourcc_text(std::uint32_t codec_id);
