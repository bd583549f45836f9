// Which connection publishes a stream: the first, until it leaves or stalls. Also the effect of a change
// on players.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/expected_replies.h"
#include "tests/support/media_bytes.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

namespace {

using testing::IsEmpty;

const std::string TAKEOVER = "Existing RTMP publisher for stream stalled, taking over as publisher";
const std::string TIME_RESET = "Notifing subscribers of time reset";
const std::string PLAYER_DROPPED = "Dropping subscriber because format change";
constexpr Milliseconds STALL{2500};
constexpr Milliseconds FIRST_MEDIA_GRACE{3500};
constexpr std::uint32_t NO_DELAY = 1;  // a timestamp that pacing never holds

// A moment at the server, known to lie between these two times.
struct Instant {
    TimePoint earliest;
    TimePoint latest;
};

Instant instant_of(const std::function<void()>& action) {
    const TimePoint earliest = SteadyClock::now();
    action();
    return {earliest, SteadyClock::now()};
}

Instant send_media(RtmpClient& publisher) {
    return instant_of([&] {
        publisher.send_audio(NO_DELAY, aac_frame(1));
        (void)publisher.round_trip();
    });
}

// The rival sends until it has taken over the stream. That must happen with the first message handled after
// the deadline, and not before.
void expect_takeover_after(const ServerProcess& server, RtmpClient& rival, const Instant& last_sign_of_life,
                           Milliseconds grace) {
    for (bool must_succeed = false; !must_succeed;) {
        must_succeed = SteadyClock::now() >= last_sign_of_life.latest + grace;
        rival.send_audio(NO_DELAY, aac_frame(99));
        (void)rival.round_trip();
        if (server.count(TAKEOVER) != 0) {
            EXPECT_GE(SteadyClock::now(), last_sign_of_life.earliest + grace);
            return;
        }
        std::this_thread::sleep_for(Milliseconds{20});
    }
    ADD_FAILURE() << "the stream was not taken over";
}

void let_it_stall(const Instant& last_sign_of_life) {
    std::this_thread::sleep_until(last_sign_of_life.latest + STALL);
}

}  // namespace

TEST(takeover, a_rival_gets_a_success_reply_and_its_media_is_not_relayed) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient rival = connected_client();
    rival.send_publish("cam1");
    EXPECT_EQ(rival.expect_message(MSG_COMMAND).payload, publish_status(amf_number(3)));
    server.wait_for_line("Connection is publishing 'cam1'", server.wait_for_line(TIME_RESET));
    EXPECT_EQ(server.count("Connection is publishing 'cam1'"), 2U);
    EXPECT_EQ(server.count(TIME_RESET), 1U);

    rival.send_audio(NO_DELAY, aac_frame(1));
    (void)rival.round_trip();
    publisher.send_audio(NO_DELAY, aac_frame(2));
    EXPECT_EQ(player.expect_message(MSG_AUDIO).payload, aac_frame(2));
    rival.send_audio(NO_DELAY, aac_frame(3));
    (void)rival.round_trip();
    EXPECT_THAT(player.round_trip(), IsEmpty());
    EXPECT_EQ(server.count(TAKEOVER), 0U);
}

TEST(takeover, a_publisher_without_media_for_two_and_a_half_seconds_is_replaced) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient rival = publishing_client("cam1");
    const Instant last_media = send_media(publisher);
    expect_takeover_after(server, rival, last_media, STALL);
    publisher.expect_closed();
}

TEST(takeover, a_publisher_has_three_and_a_half_seconds_for_its_first_media) {
    ServerProcess server;
    RtmpClient publisher = connected_client();
    const Instant publish = instant_of([&] { (void)publisher.publish("cam1"); });
    RtmpClient rival = publishing_client("cam1");
    expect_takeover_after(server, rival, publish, FIRST_MEDIA_GRACE);
    publisher.expect_closed();
}

TEST(takeover, metadata_and_commands_do_not_keep_a_publisher_alive) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient rival = publishing_client("cam1");
    const Instant last_media = instant_of([&] {
        publisher.send_video(NO_DELAY, avc_inter_frame(1));
        (void)publisher.round_trip();
    });
    while (SteadyClock::now() < last_media.latest + STALL) {
        publisher.send_metadata(amf_object({}));
        (void)publisher.round_trip();
        std::this_thread::sleep_for(Milliseconds{100});
    }
    rival.send_audio(NO_DELAY, aac_frame(1));
    server.wait_for_line(TAKEOVER);
}

TEST(takeover, a_held_message_keeps_its_publisher_alive) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient rival = publishing_client("cam1");
    publisher.send_audio(1000, aac_frame(1));
    (void)publisher.round_trip();
    publisher.send_audio(3600000, aac_frame(2));
    const TimePoint start = SteadyClock::now();
    // Even when its connection is gone.
    publisher.close();
    while (elapsed_since(start) < STALL + Milliseconds{1000}) {
        rival.send_audio(NO_DELAY, aac_frame(3));
        (void)rival.round_trip();
        std::this_thread::sleep_for(Milliseconds{100});
    }
    EXPECT_EQ(server.count(TAKEOVER), 0U);
}

TEST(takeover, the_new_publishers_media_reaches_the_players_that_had_none) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient rival = publishing_client("cam1");
    const Instant last_media = send_media(publisher);
    RtmpClient player = playing_client("cam1");
    let_it_stall(last_media);
    rival.send_audio(500000, aac_frame(2));
    const RtmpMessage first = player.expect_message(MSG_AUDIO);
    EXPECT_EQ(first.payload, aac_frame(2));
    EXPECT_EQ(first.timestamp, 0U);
    publisher.expect_closed();
    rival.send_audio(500030, aac_frame(3));
    const RtmpMessage second = player.expect_message(MSG_AUDIO);
    EXPECT_EQ(second.payload, aac_frame(3));
    EXPECT_EQ(second.timestamp, 30U);
    EXPECT_EQ(server.count(PLAYER_DROPPED), 0U);
}

TEST(takeover, players_that_had_media_are_dropped) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient rival = publishing_client("cam1");
    const Instant last_media = send_media(publisher);
    EXPECT_EQ(player.expect_message(MSG_AUDIO).payload, aac_frame(1));
    RtmpClient new_player = playing_client("cam1");
    const LineMark mark = server.mark();
    let_it_stall(last_media);
    rival.send_audio(NO_DELAY, aac_frame(2));
    player.expect_closed();
    publisher.expect_closed();
    server.wait_for_lines({TAKEOVER, TIME_RESET, PLAYER_DROPPED, "Lock on audio type 10"}, mark);
    EXPECT_EQ(server.count(PLAYER_DROPPED), 1U);
    EXPECT_EQ(new_player.expect_message(MSG_AUDIO).payload, aac_frame(2));
}

TEST(takeover, a_takeover_with_another_codec_is_reported_for_every_player_that_had_media) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient rival = publishing_client("cam1");
    const Instant last_media = send_media(publisher);
    const LineMark mark = server.mark();
    let_it_stall(last_media);
    rival.send_audio(NO_DELAY, from_hex("2F 00"));
    player.expect_closed();
    server.wait_for_consecutive_lines({TAKEOVER, TIME_RESET, PLAYER_DROPPED, "Lock on audio type 2",
                                       "Publisher changed audio codec", "Relay fail"},
                                      mark);
}

TEST(takeover, a_takeover_with_another_codec_in_the_metadata_is_reported_too) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient rival = publishing_client("cam1");
    // After a while without players and media, the stream no longer has a publisher, so the rival's metadata
    // is applied.
    server.wait_for_line("Disposing old stream 'cam1'", 0, Milliseconds{5000} + DEFAULT_WAIT);
    rival.send_metadata(amf_object({{"audiocodecid", amf_number(2)}}));
    (void)rival.round_trip();
    RtmpClient player = playing_client("cam1");
    const Instant last_media = send_media(publisher);
    EXPECT_EQ(player.expect_message(MSG_AUDIO).payload, aac_frame(1));
    const LineMark mark = server.mark();
    let_it_stall(last_media);
    rival.send_audio(NO_DELAY, from_hex("2F 00"));
    player.expect_closed();
    server.wait_for_consecutive_lines({TAKEOVER, TIME_RESET, PLAYER_DROPPED, "Lock on audio type 2 (0x2) ''",
                                       "Publisher changed audio codec", "Relay fail"},
                                      mark);
}

TEST(takeover, a_waiting_rival_publishes_with_its_next_media_once_the_publisher_has_left) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient rival = publishing_client("cam1");
    publisher.close();
    const LineMark mark = server.wait_for_line("Dropping connection");
    // This also works without a player.
    rival.send_audio(NO_DELAY, aac_frame(1));
    server.wait_for_line(TIME_RESET, mark);
    EXPECT_EQ(server.count(TAKEOVER), 0U);
    RtmpClient player = playing_client("cam1");
    rival.send_audio(NO_DELAY, aac_frame(2));
    EXPECT_EQ(player.expect_message(MSG_AUDIO).payload, aac_frame(2));
    EXPECT_EQ(server.count(TIME_RESET), 2U);
}

TEST(takeover, the_next_publisher_drops_the_players_that_had_media_and_serves_the_others) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_video(NO_DELAY, avc_inter_frame(1));
    (void)player.expect_message(MSG_VIDEO);
    publisher.close();
    LineMark mark = server.wait_for_line("Dropping connection");
    RtmpClient waiting_player = playing_client("cam1");
    EXPECT_THAT(player.round_trip(), IsEmpty()) << "the end of the publisher alone changes nothing";

    RtmpClient next = connected_client();
    mark = server.mark();
    (void)next.publish("cam1");
    server.wait_for_consecutive_lines({TIME_RESET, PLAYER_DROPPED, "Connection is publishing 'cam1'"}, mark);
    player.expect_closed_without_answer();
    next.send_video(NO_DELAY, avc_inter_frame(2));
    EXPECT_EQ(waiting_player.expect_message(MSG_VIDEO).payload, avc_inter_frame(2));
    EXPECT_EQ(server.count(PLAYER_DROPPED), 1U);
}

TEST(takeover, a_player_from_before_any_publisher_survives_the_first_publish) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    server.wait_for_consecutive_lines({TIME_RESET, "Connection is publishing 'cam1'"});
    publisher.send_audio(NO_DELAY, aac_frame(1));
    EXPECT_EQ(player.expect_message(MSG_AUDIO).payload, aac_frame(1));
    EXPECT_EQ(server.count(TIME_RESET), 1U);
    EXPECT_EQ(server.count(PLAYER_DROPPED), 0U);
}

TEST(takeover, metadata_and_headers_of_a_rival_are_kept_until_it_has_taken_over) {
    ServerProcess server;
    RtmpClient early_player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient rival = publishing_client("cam1");
    const Bytes metadata = amf_object({{"title", amf_string("rival")}});
    rival.send_metadata(metadata);
    rival.send_audio(NO_DELAY, aac_header());
    (void)rival.round_trip();
    server.wait_for_line("client is publisher but not current publisher, holding onMetaData for later");
    server.wait_for_line("RTMP: Saving a copy of the audio sequence header");
    EXPECT_THAT(early_player.round_trip(), IsEmpty());

    publisher.close();
    server.wait_for_line("Dropping connection");
    rival.send_audio(NO_DELAY, aac_frame(1));
    // Earlier metadata is not sent to current players; the header is sent again.
    EXPECT_EQ(early_player.expect_message(MSG_AUDIO).payload, aac_header());
    EXPECT_EQ(early_player.expect_message(MSG_AUDIO).payload, aac_frame(1));
    RtmpClient late_player = playing_client("cam1");
    EXPECT_EQ(late_player.expect_message(MSG_DATA).payload, amf_string("onMetaData") + metadata);
}

TEST(takeover, an_old_publisher_that_wakes_up_too_late_finds_its_connection_closed) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient rival = publishing_client("cam1");
    const Instant last_media = send_media(publisher);
    (void)player.expect_message(MSG_AUDIO);
    let_it_stall(last_media);
    rival.send_audio(NO_DELAY, aac_frame(2));
    publisher.expect_closed();
    player.expect_closed();
    RtmpClient returned = publishing_client("cam1");
    RtmpClient new_player = playing_client("cam1");
    returned.send_audio(NO_DELAY, aac_frame(3));
    (void)returned.round_trip();
    rival.send_audio(NO_DELAY, aac_frame(4));
    EXPECT_EQ(new_player.expect_message(MSG_AUDIO).payload, aac_frame(4));
    EXPECT_EQ(server.count(TAKEOVER), 1U);
}
