#include "bench/stamped_media.h"

#include <gtest/gtest.h>

#include <array>

#include "tests/support/chunk_bytes.h"
#include "tests/support/media_bytes.h"

namespace {

constexpr FrameStamp STAMP{70000, 16777300, 0x123456789AB};

struct Kind {
    FrameKind kind;
    std::uint8_t type;
};
constexpr std::array<Kind, 3> KINDS{
    {{FrameKind::AUDIO, MSG_AUDIO}, {FrameKind::VIDEO_KEY, MSG_VIDEO}, {FrameKind::VIDEO_INTER, MSG_VIDEO}}};

TEST(stamped_media, a_frame_carries_its_stamp) {
    for (const auto& [kind, type] : KINDS) {
        const Bytes frame = stamped_frame(kind, 3000, STAMP);
        EXPECT_EQ(frame.size(), 3000U);
        EXPECT_EQ(read_stamp(type, frame), STAMP);
        EXPECT_FALSE(is_sequence_header(frame));
    }
}

TEST(stamped_media, a_frame_with_any_bit_changed_has_no_stamp) {
    for (const auto& [kind, type] : KINDS) {
        const Bytes frame = stamped_frame(kind, 60, STAMP);
        for (std::size_t bit = 0; bit < frame.size() * 8; ++bit) {
            Bytes damaged = frame;
            damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << bit % 8));
            EXPECT_EQ(read_stamp(type, damaged), std::nullopt) << bit;
        }
    }
}

TEST(stamped_media, a_frame_truncated_anywhere_has_no_stamp) {
    for (const auto& [kind, type] : KINDS) {
        const Bytes frame = stamped_frame(kind, 60, STAMP);
        for (std::size_t size = 0; size < frame.size(); ++size) {
            EXPECT_EQ(read_stamp(type, frame.substr(0, size)), std::nullopt) << size;
        }
    }
}

TEST(stamped_media, even_the_smallest_frame_has_room_for_its_stamp) {
    for (const auto& [kind, type] : KINDS) {
        EXPECT_EQ(read_stamp(type, stamped_frame(kind, 0, STAMP)), STAMP);
    }
}

TEST(stamped_media, decoder_settings_are_not_frames) {
    EXPECT_TRUE(is_sequence_header(aac_header()));
    EXPECT_TRUE(is_sequence_header(avc_header()));
    EXPECT_FALSE(is_sequence_header({}));
}

}  // namespace
