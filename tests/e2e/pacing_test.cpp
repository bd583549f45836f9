// A publisher that sends faster than real time is slowed down to it, measured from its first media message.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/media_bytes.h"
#include "tests/support/message_recorder.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"
#include "tests/support/test_failure.h"

namespace {

using testing::IsEmpty;

// How late a message may be on a busy machine. It may not be early at all.
constexpr Milliseconds LATE = scaled(Milliseconds{1000});

Milliseconds after(TimePoint start, TimePoint arrival) {
    return std::chrono::duration_cast<Milliseconds>(arrival - start);
}

}  // namespace

TEST(pacing, media_ahead_of_its_time_is_held_until_it_is_due) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    constexpr std::uint32_t MESSAGES = 21;
    constexpr std::uint32_t STEP_MS = 100;
    MessageRecorder recorder(player);
    const TimePoint start = SteadyClock::now();
    for (std::uint32_t i = 0; i < MESSAGES; ++i) {
        publisher.send_audio(1000 + i * STEP_MS, aac_frame(i));
    }
    recorder.wait_for(MESSAGES);
    const std::vector<RtmpMessage> messages = recorder.messages();
    ASSERT_EQ(messages.size(), MESSAGES);
    for (std::uint32_t i = 0; i < MESSAGES; ++i) {
        EXPECT_EQ(messages[i].payload, aac_frame(i));
        EXPECT_EQ(messages[i].timestamp, i * STEP_MS);
        EXPECT_GE(after(start, messages[i].arrival), Milliseconds{i * STEP_MS}) << i;
        EXPECT_LE(after(start, messages[i].arrival), Milliseconds{i * STEP_MS} + LATE) << i;
    }
}

TEST(pacing, media_that_arrives_in_time_is_not_held) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_audio(100000, aac_frame(1));
    (void)player.expect_message(MSG_AUDIO);
    const TimePoint start = SteadyClock::now();
    // None of these is later than the first.
    for (const std::uint32_t timestamp : {100000U, 99000U, 1U, 0U, 100000U}) {
        publisher.send_audio(timestamp, aac_frame(timestamp));
        EXPECT_EQ(player.expect_message(MSG_AUDIO).payload, aac_frame(timestamp));
    }
    EXPECT_LT(elapsed_since(start), 5 * LATE);
}

TEST(pacing, a_first_timestamp_of_zero_leaves_the_base_to_the_next_message) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    MessageRecorder recorder(player);
    const TimePoint start = SteadyClock::now();
    publisher.send_audio(0, aac_frame(1));
    publisher.send_audio(0, aac_frame(2));
    publisher.send_audio(60000, aac_frame(3));
    publisher.send_audio(61500, aac_frame(4));
    recorder.wait_for(4);
    const std::vector<RtmpMessage> messages = recorder.messages();
    EXPECT_LT(after(start, messages[2].arrival), LATE) << "a minute ahead of the first, and the base";
    EXPECT_GE(after(start, messages[3].arrival), Milliseconds{1500});
    EXPECT_LT(after(start, messages[3].arrival), Milliseconds{1500} + LATE);
    EXPECT_EQ(messages[2].timestamp, 60000U);
    EXPECT_EQ(messages[3].timestamp, 61500U);
}

TEST(pacing, audio_and_video_share_one_clock) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    MessageRecorder recorder(player);
    const TimePoint start = SteadyClock::now();
    publisher.send_audio(1000, aac_frame(1));
    publisher.send_video(2000, avc_inter_frame(2));
    publisher.send_audio(2000, aac_frame(3));
    recorder.wait_for(3);
    const std::vector<RtmpMessage> messages = recorder.messages();
    ASSERT_EQ(messages.size(), 3U);
    EXPECT_EQ(messages[1].type, MSG_VIDEO);
    EXPECT_GE(after(start, messages[1].arrival), Milliseconds{1000});
    EXPECT_GE(after(start, messages[2].arrival), Milliseconds{1000});
    EXPECT_LT(after(start, messages[2].arrival), Milliseconds{1000} + LATE);
}

TEST(pacing, messages_after_a_held_one_wait_and_other_connections_do_not) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    const Bytes metadata = amf_object({{"title", amf_string("held")}});
    const TimePoint start = SteadyClock::now();
    publisher.send_audio(1000, aac_frame(1));
    publisher.send_audio(3000, aac_frame(2));
    publisher.send_metadata(metadata);
    publisher.send_command(amf_string("releaseStream") + amf_number(7) + amf_null());
    EXPECT_EQ(player.expect_message(MSG_AUDIO).payload, aac_frame(1));
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(player.round_trip(), IsEmpty()) << "the other connections go on";
    }
    const Milliseconds others_done = elapsed_since(start);
    EXPECT_LT(others_done, Milliseconds{2000});

    (void)publisher.expect_message(MSG_COMMAND);
    EXPECT_GE(elapsed_since(start), Milliseconds{2000});
    EXPECT_EQ(player.read_message().payload, aac_frame(2));
    EXPECT_EQ(player.read_message().payload, amf_string("onMetaData") + metadata);
}

TEST(pacing, a_publisher_far_ahead_fills_its_socket_and_not_the_servers_memory) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    publisher.set_chunk_size(65536);
    publisher.send_audio(1000, aac_frame(1));
    (void)player.expect_message(MSG_AUDIO);
    const std::size_t before_kib = server.rss_kib();
    bool stopped = false;
    try {
        for (std::uint32_t i = 0; i < 100; ++i) {
            const Bytes message = chunked(
                {.type = MSG_VIDEO, .payload = avc_inter_frame(i, 1000000), .csid = 6, .timestamp = 3600000},
                65536);
            publisher.send_bytes(message, scaled(Milliseconds{1500}));
        }
    } catch (const TestFailure&) {
        stopped = true;
    }
    EXPECT_TRUE(stopped) << "100 MB went into the server";
    // Eight messages are queued, and a ninth is being read.
    EXPECT_LT(server.rss_kib(), before_kib + std::size_t{TIME_SCALE > 1 ? 60 : 24} * 1024);
    EXPECT_THAT(player.round_trip(), IsEmpty());
}

TEST(pacing, a_timestamp_that_wraps_around_is_not_held) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_audio(0xFFFFFFF0, aac_frame(1));
    publisher.send_audio(4, aac_frame(2));
    publisher.send_audio(8, aac_frame(3));
    for (const std::uint32_t seed : {1U, 2U, 3U}) {
        const RtmpMessage message = player.expect_message(MSG_AUDIO);
        EXPECT_EQ(message.payload, aac_frame(seed));
        EXPECT_EQ(message.timestamp, 0U);
    }
}

TEST(pacing, a_rival_publisher_is_paced_as_well) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient rival = publishing_client("cam1");
    const TimePoint start = SteadyClock::now();
    rival.send_audio(1000, aac_frame(1));
    rival.send_audio(2000, aac_frame(2));
    (void)rival.round_trip();
    EXPECT_GE(elapsed_since(start), Milliseconds{1000});
    EXPECT_LT(elapsed_since(start), Milliseconds{1000} + 2 * LATE);
}
