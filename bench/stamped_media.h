// Audio and video frames whose receiver can verify their integrity, position in the stream and transit time.
// A frame is a tag as in the FLV format, a stamp, filling, and the CRC-32 of these.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "tests/support/wire_bytes.h"

struct FrameStamp {
    std::uint32_t sequence = 0;  // counts audio and video of a stream together
    std::uint32_t media_ms = 0;  // the publisher's timestamp
    std::uint64_t sent_us = 0;   // by now_us()

    bool operator==(const FrameStamp&) const = default;
};

enum class FrameKind { AUDIO, VIDEO_KEY, VIDEO_INTER };

std::uint64_t now_us();

// If size_bytes is too small for tag, stamp and CRC, the smallest size that fits is used.
Bytes stamped_frame(FrameKind kind, std::size_t size_bytes, const FrameStamp& stamp);

// Whether a message of this type (8 or 9) contains decoder settings instead of a frame.
bool is_sequence_header(std::string_view payload);

// Returns the stamp of a frame. Empty if any byte is wrong.
std::optional<FrameStamp> read_stamp(std::uint8_t message_type, std::string_view payload);
