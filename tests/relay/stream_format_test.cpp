#include "relay/stream_format.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

bool same(const StreamFormat& a, const StreamFormat& b) {
    return a.video_width == b.video_width && a.video_height == b.video_height &&
           a.audio_codec_id == b.audio_codec_id && a.video_codec_id == b.video_codec_id;
}

const StreamFormat FULL_HD{1920, 1080, 10, 7};

}  // namespace

TEST(stream_format, is_unknown_at_first) {
    EXPECT_TRUE(same(StreamFormat{}, StreamFormat{-1, -1, 0, 0}));
}

TEST(stream_format, of_a_publisher_keeps_values_that_an_update_lacks) {
    StreamFormat format = FULL_HD;
    update_format(format, StreamFormat{});
    EXPECT_TRUE(same(format, FULL_HD));
    update_format(format, StreamFormat{0, -5, 0, 0});
    EXPECT_TRUE(same(format, FULL_HD));
    update_format(format, StreamFormat{1280, -1, 2, 0});
    EXPECT_TRUE(same(format, StreamFormat{1280, 1080, 2, 7}));
    update_format(format, StreamFormat{1, 1, 1, 1});
    EXPECT_TRUE(same(format, StreamFormat{1, 1, 1, 1}));
}

TEST(stream_format, of_a_player_takes_the_first_known_values) {
    StreamFormat told;
    EXPECT_EQ(tell_format(told, StreamFormat{1920, -1, 0, 7}), FormatChange::NONE);
    EXPECT_TRUE(same(told, StreamFormat{1920, -1, 0, 7}));
    EXPECT_EQ(tell_format(told, StreamFormat{-1, 1080, 10, 0}), FormatChange::NONE);
    EXPECT_TRUE(same(told, FULL_HD));
    EXPECT_EQ(tell_format(told, FULL_HD), FormatChange::NONE);
    EXPECT_EQ(tell_format(told, StreamFormat{}), FormatChange::NONE);
    EXPECT_EQ(tell_format(told, StreamFormat{0, -7, 0, 0}), FormatChange::NONE);
    EXPECT_TRUE(same(told, FULL_HD));
}

TEST(stream_format, counts_values_below_1_as_unknown) {
    StreamFormat told{0, -7, 0, 0};
    EXPECT_EQ(tell_format(told, FULL_HD), FormatChange::NONE);
    EXPECT_TRUE(same(told, FULL_HD));
}

TEST(stream_format, of_a_player_changes_by_any_other_known_value) {
    struct Case {
        StreamFormat format;
        FormatChange change;
    };
    for (const Case& row : std::vector<Case>{{{1921, 1080, 10, 7}, FormatChange::WIDTH},
                                             {{1920, 1081, 10, 7}, FormatChange::HEIGHT},
                                             {{1920, 1080, 2, 7}, FormatChange::AUDIO_CODEC},
                                             {{1920, 1080, 10, 2}, FormatChange::VIDEO_CODEC},
                                             {{1, 1, 1, 1}, FormatChange::WIDTH},
                                             {{-1, 1, 1, 1}, FormatChange::HEIGHT},
                                             {{-1, -1, 1, 1}, FormatChange::AUDIO_CODEC},
                                             {{-1, -1, 0, 1}, FormatChange::VIDEO_CODEC}}) {
        StreamFormat told = FULL_HD;
        EXPECT_EQ(tell_format(told, row.format), row.change);
        EXPECT_TRUE(same(told, FULL_HD));
    }
}

TEST(stream_format, is_neither_compared_nor_recorded_after_a_change) {
    StreamFormat told{-1, 720, 0, 0};
    EXPECT_EQ(tell_format(told, FULL_HD), FormatChange::HEIGHT);
    EXPECT_TRUE(same(told, StreamFormat{1920, 720, 0, 0}));
}
