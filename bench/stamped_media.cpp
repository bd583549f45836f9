#include "bench/stamped_media.h"

#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <cstring>

#include "tests/support/chunk_bytes.h"

namespace {

constexpr std::size_t AUDIO_TAG_BYTES = 2;
constexpr std::size_t VIDEO_TAG_BYTES = 5;
constexpr std::size_t STAMP_BYTES = 16;
constexpr std::size_t CRC_BYTES = 4;
constexpr std::size_t FILLING_BYTES = 1 << 20;
// Prime, so that successive frames are filled differently.
constexpr std::size_t FILLING_STEP = 7919;

std::uint32_t crc_of(std::string_view bytes) {
    return static_cast<std::uint32_t>(
        crc32_z(0, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()));
}

Bytes tag_of(FrameKind kind) {
    switch (kind) {
        case FrameKind::AUDIO:
            return from_hex("AF 01");
        case FrameKind::VIDEO_KEY:
            return from_hex("17 01 00 00 00");
        case FrameKind::VIDEO_INTER:
            return from_hex("27 01 00 00 00");
    }
    return {};
}

Bytes filling(std::uint32_t sequence, std::size_t size_bytes) {
    static const Bytes pool = pattern_bytes(FILLING_BYTES, 1);
    Bytes bytes(pool, sequence * FILLING_STEP % (FILLING_BYTES / 2), size_bytes);
    while (bytes.size() < size_bytes) {
        bytes.append(pool, 0, size_bytes - bytes.size());
    }
    return bytes;
}

}  // namespace

std::uint64_t now_us() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                          std::chrono::steady_clock::now().time_since_epoch())
                                          .count());
}

Bytes stamped_frame(FrameKind kind, std::size_t size_bytes, const FrameStamp& stamp) {
    Bytes frame = tag_of(kind);
    const std::size_t needed = frame.size() + STAMP_BYTES + CRC_BYTES;
    frame += be32(stamp.sequence) + be32(stamp.media_ms) +
             be32(static_cast<std::uint32_t>(stamp.sent_us >> 32)) +
             be32(static_cast<std::uint32_t>(stamp.sent_us));
    frame += filling(stamp.sequence, size_bytes > needed ? size_bytes - needed : 0);
    frame += be32(crc_of(frame));
    return frame;
}

bool is_sequence_header(std::string_view payload) {
    return payload.size() > 1 && payload[1] == '\0';
}

std::optional<FrameStamp> read_stamp(std::uint8_t message_type, std::string_view payload) {
    const std::size_t tag_bytes = message_type == MSG_AUDIO ? AUDIO_TAG_BYTES : VIDEO_TAG_BYTES;
    if (payload.size() < tag_bytes + STAMP_BYTES + CRC_BYTES) {
        return std::nullopt;
    }
    const std::size_t crc_offset = payload.size() - CRC_BYTES;
    if (get_be32(payload, crc_offset) != crc_of(payload.substr(0, crc_offset))) {
        return std::nullopt;
    }
    FrameStamp stamp;
    stamp.sequence = get_be32(payload, tag_bytes);
    stamp.media_ms = get_be32(payload, tag_bytes + 4);
    stamp.sent_us = std::uint64_t{get_be32(payload, tag_bytes + 8)} << 32 | get_be32(payload, tag_bytes + 12);
    return stamp;
}
