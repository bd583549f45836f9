// How messages are dispatched: by type, by command name, and on failure.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/dropped_client.h"
#include "tests/support/expected_replies.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

using Lines = std::vector<std::string>;

const std::string HRMPH = "Hrmph, RTMP publisher ignored stream ID in reply. Using ";

}  // namespace

TEST(dispatch, an_empty_command_is_ignored) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    (void)client.round_trip();
    const LineMark mark = server.mark();
    client.send_command("");
    EXPECT_TRUE(client.round_trip().empty());
    EXPECT_THAT(server.lines_since(mark), IsEmpty());
}

TEST(dispatch, getStreamLength_is_not_answered) {
    ServerProcess server;
    RtmpClient client = connected_client();
    const LineMark mark = server.mark();
    client.send_command(amf_string("getStreamLength") + amf_number(3) + amf_null() + amf_string("cam1"));
    client.send_command(amf_string("getStreamLength"));
    EXPECT_TRUE(client.round_trip().empty());
    EXPECT_THAT(server.lines_since(mark), IsEmpty());
}

TEST(dispatch, deleteStream_drops_the_connection_with_two_lines) {
    const Lines expected = {"deleteStream, drop connection", "AMF0 error command", "Dropping connection",
                            "Disposing old stream ''"};
    EXPECT_EQ(lines_of_failure(amf_string("deleteStream")), expected);
    EXPECT_EQ(lines_of_failure(amf_string("deleteStream") + amf_number(4) + amf_null() + amf_number(1)),
              expected);
}

TEST(dispatch, an_unknown_command_is_named_and_drops_the_connection) {
    for (const char* name :
         {"x", "Connect", "connect ", "FCSubscribe", "_checkbw", "closeStream", "%s%n", "play2"}) {
        EXPECT_EQ(lines_of_failure(amf_string(name) + amf_number(1) + amf_null()),
                  (Lines{"Unknown command '" + std::string(name) + "'", "AMF0 error command",
                         "Dropping connection", "Disposing old stream ''"}));
    }
}

TEST(dispatch, a_command_that_does_not_start_with_a_string_has_an_empty_name) {
    for (const Bytes& first :
         {amf_number(20), amf_null(), amf_boolean(1), amf_object({{"a", amf_string("connect")}}),
          bytes_of({AMF_OBJECT_END}), amf_string("")}) {
        EXPECT_EQ(lines_of_failure(first), (Lines{"Unknown command ''", "AMF0 error command",
                                                  "Dropping connection", "Disposing old stream ''"}))
            << to_hex(first);
    }
}

TEST(dispatch, a_name_that_cannot_be_decoded_drops_the_connection) {
    EXPECT_EQ(lines_of_failure(from_hex("0A")),
              (Lines{"AMF0 error command", "Dropping connection", "Disposing old stream ''"}));
}

TEST(dispatch, a_name_is_shown_up_to_its_first_zero_byte_but_compared_whole) {
    EXPECT_EQ(
        lines_of_failure(amf_string(std::string("connect\0", 8)) + amf_number(1) + amf_object({})).at(0),
        "Unknown command 'connect'");
}

TEST(dispatch, a_command_name_may_be_a_long_string) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    client.send_command(amf_long_string("createStream") + amf_number(2) + amf_null());
    EXPECT_THAT(client.expect_message(MSG_COMMAND).payload, StartsWith(amf_string("_result")));
    client.send_command(amf_xml_document("createStream") + amf_number(2) + amf_null());
    EXPECT_THAT(client.expect_message(MSG_COMMAND).payload, StartsWith(amf_string("_result")));
}

TEST(dispatch, media_from_a_client_that_does_not_publish_is_ignored) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient stranger = handshaken_client();
    (void)player.round_trip();
    (void)stranger.round_trip();
    const LineMark mark = server.mark();
    for (RtmpClient* client : {&player, &stranger}) {
        client->send_audio(1, from_hex("AF 00 12 10"));
        client->send_video(3600000, from_hex("17 00 00 00 00"));
        EXPECT_TRUE(client->round_trip().empty());
    }
    EXPECT_THAT(server.lines_since(mark), IsEmpty());
    EXPECT_TRUE(player.round_trip().empty()) << "nothing of it was relayed";
}

TEST(dispatch, messages_after_a_failed_one_are_still_handled) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    const LineMark mark = server.mark();
    // A message ahead of the clock holds the others after it, so one pass finds them all.
    publisher.send_audio(1, from_hex("AF 01 00"));
    publisher.send_audio(801, from_hex("AF 01 00"));
    publisher.send_command(amf_string("x"));
    publisher.send_create_stream();
    publisher.send_command(amf_string("y"));
    (void)publisher.expect_closed();
    server.wait_for_line("Dropping connection", mark);
    Lines lines = server.lines_since(mark);
    std::string stream_id_line;
    std::erase_if(lines, [&](const std::string& line) {
        if (line.starts_with("I choose stream ID ")) {
            stream_id_line = line;
        }
        return line.starts_with("Lock on audio");
    });
    EXPECT_THAT(lines, ElementsAre("Unknown command 'x'", "AMF0 error command", stream_id_line,
                                   "Unknown command 'y'", "AMF0 error command", "Dropping connection"));
    EXPECT_NE(stream_id_line, "");
}

TEST(dispatch, a_message_ahead_of_the_clock_holds_back_the_commands_after_it) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    const TimePoint start = SteadyClock::now();
    publisher.send_audio(1, from_hex("AF 01 00"));
    publisher.send_audio(501, from_hex("AF 01 00"));
    EXPECT_TRUE(publisher.round_trip().empty());
    EXPECT_GE(elapsed_since(start), Milliseconds{490});
}

TEST(dispatch, a_client_that_leaves_is_detected_at_once) {
    ServerProcess server;
    RtmpClient client = connected_client();
    const LineMark mark = server.mark();
    client.close();
    EXPECT_THAT(server.lines_through("Disposing old stream ''", mark),
                ElementsAre("Thread 1 died", "WARNING: Thread terminated unexpectedly", "Dropping connection",
                            "Disposing old stream ''"));
}

TEST(dispatch, a_publisher_on_another_message_stream_is_reported_once) {
    ServerProcess server;
    RtmpClient publisher = connected_client();
    const std::uint32_t chosen = publisher.create_stream();
    (void)publisher.publish("cam1");
    publisher.media_stream_id = chosen == 1 ? 2 : 1;
    const std::string line = HRMPH + std::to_string(publisher.media_stream_id);
    publisher.send_audio(1, from_hex("AF 01 00"));
    publisher.send_audio(1, from_hex("AF 01 00"));
    (void)publisher.round_trip();
    EXPECT_EQ(server.count(line), 1U);
    publisher.media_stream_id = 7;
    publisher.send_audio(1, from_hex("AF 01 00"));
    (void)publisher.round_trip();
    EXPECT_EQ(server.err().count_starting(HRMPH), 1U) << "at most once per createStream";
    (void)publisher.create_stream();
    publisher.media_stream_id = 8;
    publisher.send_audio(1, from_hex("AF 01 00"));
    (void)publisher.round_trip();
    EXPECT_EQ(server.count(HRMPH + "8"), 1U);
}

TEST(dispatch, media_on_the_assigned_message_stream_does_not_rule_out_a_later_report) {
    ServerProcess server;
    RtmpClient publisher = connected_client();
    (void)publisher.create_stream();
    (void)publisher.publish("cam1");
    publisher.send_audio(1, from_hex("AF 01 00"));
    (void)publisher.round_trip();
    EXPECT_EQ(server.err().count_starting(HRMPH), 0U);
    publisher.media_stream_id = 9;
    publisher.send_audio(1, from_hex("AF 01 00"));
    (void)publisher.round_trip();
    EXPECT_EQ(server.count(HRMPH + "9"), 1U);
}

TEST(dispatch, without_createStream_any_message_stream_is_accepted) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    publisher.media_stream_id = 1;
    publisher.send_audio(1, from_hex("AF 01 00"));
    (void)publisher.round_trip();
    EXPECT_EQ(server.err().count_starting(HRMPH), 0U);
}

TEST(dispatch, each_check_of_a_media_message_is_printed_on_standard_output_with_dbg_pkt) {
    ServerProcess server({"--dbg-pkt"});
    RtmpClient stranger = handshaken_client();
    stranger.send_audio(5, from_hex("AF 01 00"));
    stranger.send_video(4294967295, "");
    std::string audio;
    std::string video;
    server.out().wait_for_line_starting("A/V 5 ", 0, &audio);
    server.out().wait_for_line_starting("A/V 4294967295 ", 0, &video);
    EXPECT_THAT(audio, MatchesRegex("A/V 5 0x[0-9a-f]+"));
    EXPECT_THAT(video, MatchesRegex("A/V 4294967295 0x[0-9a-f]+"));
    EXPECT_EQ(server.out().mark(), 2U);
    EXPECT_EQ(server.err().count_starting("A/V"), 0U);
}

TEST(dispatch, a_held_message_is_printed_on_every_pass_with_dbg_pkt) {
    ServerProcess server({"--dbg-pkt"});
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_audio(1, from_hex("AF 01 00"));
    publisher.send_audio(301, from_hex("AF 01 00"));
    (void)publisher.round_trip();
    EXPECT_EQ(server.out().count_starting("A/V 1 "), 1U);
    EXPECT_GE(server.out().count_starting("A/V 301 "), 3U);
}

TEST(dispatch, nothing_is_printed_on_standard_output_without_dbg_pkt) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_audio(1, from_hex("AF 01 00"));
    (void)publisher.round_trip();
    EXPECT_EQ(server.out().raw_text(), "");
}
