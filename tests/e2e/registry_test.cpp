// How long the server remembers a stream name.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/support/media_bytes.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

namespace {

constexpr Milliseconds IDLE_STREAM{5000};
constexpr Milliseconds DISPOSAL_WAIT = IDLE_STREAM + DEFAULT_WAIT;

std::string disposing(const std::string& name) {
    return "Disposing old stream '" + name + "'";
}

}  // namespace

TEST(registry, a_stream_without_connections_is_forgotten_after_five_seconds) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam_01");
    const TimePoint start = SteadyClock::now();
    publisher.close();
    server.wait_for_line("Dropping connection");
    server.wait_for_line(disposing("cam_01"), 0, DISPOSAL_WAIT);
    EXPECT_GE(elapsed_since(start), IDLE_STREAM);
    EXPECT_LT(elapsed_since(start), IDLE_STREAM + scaled(Milliseconds{2000}));
}

TEST(registry, a_connection_without_a_stream_leaves_no_record) {
    ServerProcess server;
    RtmpClient client = connected_client();
    client.close();
    server.wait_for_consecutive_lines({"Dropping connection", disposing("")});
}

TEST(registry, a_refused_name_is_remembered_for_five_seconds_too) {
    ServerProcess server;
    RtmpClient client = connected_client();
    const TimePoint start = SteadyClock::now();
    client.send_play("a-b");
    client.expect_closed();
    server.wait_for_consecutive_lines({"play rejected, invalid stream name", "AMF0 error command"});
    server.wait_for_line(disposing("a-b"), 0, DISPOSAL_WAIT);
    EXPECT_GE(elapsed_since(start), IDLE_STREAM);
    EXPECT_EQ(server.err().count_starting("Connection for play"), 0U);
}

TEST(registry, old_streams_are_forgotten_in_the_order_of_their_names) {
    ServerProcess server;
    std::vector<RtmpClient> publishers;
    for (const char* name : {"c", "B", "a", "_", "ab"}) {
        publishers.push_back(publishing_client(name));
    }
    publishers.clear();
    server.err().wait_for_count("Dropping connection", 5);
    // This client is served only after the last of them was closed.
    RtmpClient bystander = connected_client();
    // While the server is stopped all of them grow old, including the last.
    server.pause();
    std::this_thread::sleep_for(IDLE_STREAM + Milliseconds{100});
    EXPECT_EQ(server.err().count_starting("Disposing"), 0U);
    server.resume();
    server.wait_for_consecutive_lines(
        {disposing("B"), disposing("_"), disposing("a"), disposing("ab"), disposing("c")});
}

TEST(registry, a_stream_with_a_player_is_never_forgotten) {
    ServerProcess server;
    RtmpClient player = playing_client("watched");
    RtmpClient unwatched = publishing_client("unwatched");
    server.wait_for_line(disposing("unwatched"), 0, DISPOSAL_WAIT);
    // Both were idle for the same time; now the player's stream is older still.
    std::this_thread::sleep_for(Milliseconds{1000});
    EXPECT_EQ(server.count(disposing("watched")), 0U);
    RtmpClient publisher = publishing_client("watched");
    publisher.send_audio(1000, aac_frame(1));
    EXPECT_EQ(player.expect_message(MSG_AUDIO).payload, aac_frame(1));
}

TEST(registry, the_time_counts_from_when_the_last_player_left) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    std::this_thread::sleep_for(Milliseconds{2000});
    const TimePoint start = SteadyClock::now();
    player.close();
    server.wait_for_consecutive_lines(
        {"Dropping connection", "Connection for play unsubscribed from 'cam1'"});
    server.wait_for_line(disposing("cam1"), 0, DISPOSAL_WAIT);
    EXPECT_GE(elapsed_since(start), IDLE_STREAM);
}

TEST(registry, media_without_players_keeps_its_stream) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    const TimePoint start = SteadyClock::now();
    while (elapsed_since(start) < IDLE_STREAM + Milliseconds{1500}) {
        publisher.send_audio(1, aac_frame(1));
        (void)publisher.round_trip();
        std::this_thread::sleep_for(Milliseconds{300});
    }
    EXPECT_EQ(server.count(disposing("cam1")), 0U);
    EXPECT_EQ(server.count("Notifing subscribers of time reset"), 1U);
}

TEST(registry, a_silent_publisher_that_was_forgotten_publishes_again_with_its_next_media) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    const LineMark mark = server.wait_for_line(disposing("cam1"), 0, DISPOSAL_WAIT);
    publisher.send_audio(1000, aac_frame(1));
    server.wait_for_line("Notifing subscribers of time reset", mark);
    RtmpClient player = playing_client("cam1");
    publisher.send_audio(1000, aac_frame(2));
    EXPECT_EQ(player.expect_message(MSG_AUDIO).payload, aac_frame(2));
}

TEST(registry, subscribing_and_leaving_are_reported_once_each) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    server.wait_for_line("Connection for play subscribed to 'cam1'");
    player.close();
    server.wait_for_consecutive_lines({"Thread 1 died", "WARNING: Thread terminated unexpectedly",
                                       "Dropping connection",
                                       "Connection for play unsubscribed from 'cam1'"});
    EXPECT_EQ(server.err().count_starting("Connection for play subscribed"), 1U);
    EXPECT_EQ(server.err().count_starting("Connection for play unsubscribed"), 1U);
}
