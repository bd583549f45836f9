// Audio and video frames that prove at the other end that they are whole, which one of the stream they are,
// and how long they have been on their way: tag as in the FLV format, stamp, filling, CRC-32 of all of it.
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

// The smallest size that has room for tag, stamp and CRC is used when size_bytes is smaller.
Bytes stamped_frame(FrameKind kind, std::size_t size_bytes, const FrameStamp& stamp);

// Whether a message of this type (8 or 9) holds decoder settings and no frame.
bool is_sequence_header(std::string_view payload);

// The stamp of a frame; nothing when a byte of it is not what was sent.
std::optional<FrameStamp> read_stamp(std::uint8_t message_type, std::string_view payload);
