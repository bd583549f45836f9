#include "bench/frame_schedule.h"

#include <gtest/gtest.h>

namespace {

struct Sum {
    std::size_t video_bytes = 0;
    std::size_t audio_bytes = 0;
    unsigned video_frames = 0;
    unsigned key_frames = 0;
    std::size_t largest = 0;
};

Sum sum_of(const StreamShape& shape, std::uint32_t ms) {
    FrameSchedule schedule(shape);
    Sum sum;
    std::uint32_t last_ms = 0;
    for (Frame frame = schedule.next(); frame.due_ms < ms; frame = schedule.next()) {
        EXPECT_GE(frame.due_ms, last_ms);
        last_ms = frame.due_ms;
        (frame.is_audio ? sum.audio_bytes : sum.video_bytes) += frame.size_bytes;
        sum.video_frames += frame.is_audio ? 0 : 1;
        sum.key_frames += frame.is_key ? 1 : 0;
        sum.largest = std::max(sum.largest, frame.size_bytes);
    }
    return sum;
}

TEST(frame_schedule, a_stream_has_its_rate_its_key_frames_and_its_audio) {
    StreamShape shape;
    shape.set_video_kbit(4000);
    EXPECT_EQ(shape.video_kbit(), 4000U);
    const Sum sum = sum_of(shape, 10000);
    EXPECT_NEAR(static_cast<double>(sum.video_bytes), 5000000, 5000);
    EXPECT_NEAR(static_cast<double>(sum.audio_bytes), 160000, 1000);
    EXPECT_EQ(sum.video_frames, 300U);
    EXPECT_EQ(sum.key_frames, 5U);
    EXPECT_EQ(shape.key_interval_ms(), 2000U);
}

TEST(frame_schedule, key_frames_of_twelve_times_the_mean_do_not_change_the_rate) {
    StreamShape shape;
    shape.set_video_kbit(8000);
    shape.key_frame_in_means = 12;
    const Sum sum = sum_of(shape, 10000);
    EXPECT_NEAR(static_cast<double>(sum.video_bytes), 10000000, 20000);
    EXPECT_EQ(sum.largest, 12 * shape.mean_frame_bytes);
}

TEST(frame_schedule, a_stream_without_audio_has_none) {
    StreamShape shape;
    shape.audio_kbit_per_second = 0;
    EXPECT_EQ(sum_of(shape, 1000).audio_bytes, 0U);
}

TEST(frame_schedule, a_stream_of_key_frames_only_has_no_other_frames) {
    StreamShape shape;
    shape.frames_per_key_frame = 1;
    EXPECT_EQ(sum_of(shape, 1000).key_frames, 30U);
}

}  // namespace
