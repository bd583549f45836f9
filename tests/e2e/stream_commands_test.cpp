// createStream, releaseStream, FCPublish, FCUnpublish, publish and play.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/expected_replies.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"
#include "tests/support/unseeded_rand.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

using Lines = std::vector<std::string>;

const std::string TIME_RESET = "Notifing subscribers of time reset";

Bytes publish_command(const Bytes& id, const Bytes& name, const Bytes& type) {
    return amf_string("publish") + id + amf_null() + name + type;
}

Bytes play_command(const Bytes& id, const Bytes& rest) {
    return amf_string("play") + id + amf_null() + rest;
}

// Sends a command that must fail. Returns the lines printed before the two that every failure prints.
Lines reason_of_failure(const ServerProcess& server, RtmpClient& client, const Bytes& payload) {
    (void)client.round_trip();
    const LineMark mark = server.mark();
    client.send_command(payload);
    (void)client.expect_closed_without_answer();
    Lines lines = server.lines_through("Dropping connection", mark);
    EXPECT_GE(lines.size(), 2U);
    EXPECT_EQ(lines.at(lines.size() - 2), "AMF0 error command");
    lines.resize(lines.size() - 2);
    return lines;
}

Lines reason_of_failure(const Bytes& payload) {
    ServerProcess server;
    RtmpClient client = connected_client();
    return reason_of_failure(server, client, payload);
}

// Requires that the command is refused to a publisher and to a player, for this reason.
void expect_refused_to_both(const Bytes& command, const std::string& reason) {
    const ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    EXPECT_THAT(reason_of_failure(server, publisher, command), ElementsAre(reason));
    RtmpClient player = playing_client("cam1");
    EXPECT_THAT(reason_of_failure(server, player, command), ElementsAre(reason));
}

}  // namespace

TEST(create_stream, hands_out_random_ids_that_a_fresh_server_repeats) {
    ServerProcess server;
    RtmpClient client = connected_client();
    const LineMark mark = server.mark();
    for (const std::uint32_t id : {2067941235U, 276166656U}) {
        client.send_message({.payload = amf_string("createStream") + amf_number(4) + amf_null(),
                             .csid = 8,
                             .timestamp = 9,
                             .stream_id = 10});
        EXPECT_EQ(to_hex(client.expect_message(MSG_COMMAND).raw),
                  to_hex(chunked({.payload = create_stream_reply(amf_number(4), id),
                                  .csid = 8,
                                  .timestamp = 9,
                                  .stream_id = 10})));
    }
    EXPECT_THAT(server.lines_since(mark),
                ElementsAre("I choose stream ID 2067941235", "I choose stream ID 276166656"));
}

TEST(create_stream, ids_lie_between_1_and_2147483647) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    UnseededRand numbers;
    (void)numbers.handshake_bytes();
    for (int i = 0; i < 50; ++i) {
        const std::uint32_t id = client.create_stream();
        EXPECT_EQ(id, numbers.stream_id());
        EXPECT_GE(id, 1U);
        EXPECT_LE(id, 2147483647U);
    }
}

TEST(create_stream, needs_no_connect_and_any_command_object) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    for (const Bytes& object :
         {amf_null(), amf_object({{"a", amf_number(1)}}), amf_number(1), amf_string("")}) {
        client.send_command(amf_string("createStream") + amf_number(2) + object);
        EXPECT_THAT(client.expect_message(MSG_COMMAND).payload, StartsWith(amf_string("_result")));
    }
}

TEST(create_stream, echoes_a_transaction_id_of_any_kind) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    struct Row {
        Bytes sent;
        Bytes echoed;
    };
    const std::vector<Row> rows = {
        {amf_number(0), amf_number(0)},
        {amf_number(-1.5), amf_number(-1.5)},
        {from_hex("00 7FF8000000000001"), from_hex("00 7FF8000000000001")},
        {amf_boolean(2), amf_boolean(2)},
        {amf_string("ab"), from_hex("02 0002 61 62")},
        {amf_string(""), amf_string("")},
        {amf_null(), from_hex("05")},
        {amf_undefined(), from_hex("06")},
        {amf_long_string("ab"), amf_long_string("ab")},
        {amf_xml_document("<a/>"), amf_xml_document("<a/>")},
        {amf_object({{"b", amf_number(1)}, {"a", amf_null()}, {"b", amf_boolean(7)}}),
         amf_object({{"a", amf_null()}, {"b", amf_boolean(7)}})},
        {amf_ecma_array(3, {{"b", amf_null()}, {"b", amf_null()}, {"a", amf_object({})}}),
         amf_ecma_array(2, {{"a", amf_object({})}, {"b", amf_null()}})},
    };
    for (const Row& row : rows) {
        client.send_command(amf_string("createStream") + row.sent + amf_null());
        const Bytes payload = client.expect_message(MSG_COMMAND).payload;
        const Bytes start = amf_string("_result") + row.echoed + amf_null();
        EXPECT_EQ(to_hex(payload.substr(0, payload.size() - 9)), to_hex(start));
    }
}

TEST(create_stream, a_transaction_id_that_cannot_be_sent_back_drops_the_client) {
    EXPECT_THAT(
        reason_of_failure(amf_string("createStream") + bytes_of({AMF_OBJECT_END}) + amf_null()).size(), 1U)
        << "only the line about the stream id";
    EXPECT_THAT(reason_of_failure(amf_string("createStream") +
                                  amf_object({{"a", bytes_of({AMF_OBJECT_END})}}) + amf_null())
                    .size(),
                1U);
}

TEST(create_stream, missing_arguments_drop_the_client) {
    EXPECT_THAT(reason_of_failure(amf_string("createStream")), IsEmpty());
    EXPECT_THAT(reason_of_failure(amf_string("createStream") + amf_number(2)), IsEmpty());
    EXPECT_THAT(reason_of_failure(amf_string("createStream") + amf_number(2) + from_hex("0A")), IsEmpty());
    EXPECT_THAT(reason_of_failure(amf_string("createStream") + from_hex("0A")), IsEmpty());
}

TEST(acknowledged_commands, are_answered_with_a_plain_result_and_nothing_else) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    (void)client.round_trip();
    const LineMark mark = server.mark();
    for (const char* name : {"releaseStream", "FCPublish", "FCUnpublish"}) {
        // Data after the second value is not read.
        for (const Bytes& rest :
             {amf_null(), amf_null() + amf_string("cam1"), amf_object({}), amf_null() + from_hex("0A")}) {
            client.send_message({.payload = amf_string(name) + amf_number(7) + rest,
                                 .csid = 3,
                                 .timestamp = 12,
                                 .stream_id = 13});
            EXPECT_EQ(
                to_hex(client.expect_message(MSG_COMMAND).raw),
                to_hex(chunked(
                    {.payload = plain_result(amf_number(7)), .csid = 3, .timestamp = 12, .stream_id = 13})));
        }
        client.send_command(amf_string(name) + amf_string("id") + amf_null());
        EXPECT_EQ(client.expect_message(MSG_COMMAND).payload, plain_result(amf_string("id")));
    }
    EXPECT_THAT(server.lines_since(mark), IsEmpty());
}

TEST(acknowledged_commands, missing_arguments_drop_the_client) {
    for (const char* name : {"releaseStream", "FCPublish", "FCUnpublish"}) {
        EXPECT_THAT(reason_of_failure(amf_string(name)), IsEmpty());
        EXPECT_THAT(reason_of_failure(amf_string(name) + amf_number(2)), IsEmpty());
        EXPECT_THAT(reason_of_failure(amf_string(name) + amf_number(2) + from_hex("0A")), IsEmpty());
    }
}

TEST(publish, is_answered_and_printed) {
    ServerProcess server;
    RtmpClient client = connected_client();
    const LineMark mark = server.mark();
    client.send_message({.payload = publish_command(amf_number(5), amf_string("cam1"), amf_string("live")),
                         .csid = 8,
                         .timestamp = 44,
                         .stream_id = 3});
    EXPECT_EQ(to_hex(client.expect_message(MSG_COMMAND).raw),
              to_hex(chunked(
                  {.payload = publish_status(amf_number(5)), .csid = 8, .timestamp = 44, .stream_id = 3})));
    EXPECT_TRUE(client.round_trip().empty()) << "one message and no other";
    EXPECT_THAT(server.lines_since(mark), ElementsAre(TIME_RESET, "Connection is publishing 'cam1'"));
}

TEST(publish, works_with_either_application) {
    ServerProcess server;
    RtmpClient client = connected_client("ombrex-output");
    EXPECT_EQ(client.publish("cam1").payload, publish_status(amf_number(3)));
}

TEST(publish, echoes_a_transaction_id_of_any_kind) {
    ServerProcess server;
    for (const Bytes& id : {amf_number(0), amf_string("x"), amf_null(), amf_boolean(9)}) {
        RtmpClient client = connected_client();
        client.send_command(publish_command(id, amf_string("cam1"), amf_string("live")));
        EXPECT_EQ(client.expect_message(MSG_COMMAND).payload, publish_status(id));
    }
}

TEST(publish, any_type_but_live_is_refused_by_name) {
    for (const char* type : {"record", "append", "LIVE", "live ", "", "%s"}) {
        EXPECT_THAT(
            reason_of_failure(publish_command(amf_number(1), amf_string("cam1"), amf_string(type))),
            ElementsAre("publish command must indicate 'live' type, not '" + std::string(type) + "'"));
    }
    EXPECT_THAT(reason_of_failure(publish_command(amf_number(1), amf_string("cam1"), amf_number(3))),
                ElementsAre("publish command must indicate 'live' type, not ''"));
}

TEST(publish, missing_arguments_silently_drop_the_client) {
    EXPECT_THAT(reason_of_failure(publish_command(amf_number(1), amf_string("cam1"), "")), IsEmpty());
    EXPECT_THAT(reason_of_failure(publish_command(amf_number(1), "", "")), IsEmpty());
    EXPECT_THAT(reason_of_failure(amf_string("publish") + amf_number(1)), IsEmpty());
    EXPECT_THAT(reason_of_failure(amf_string("publish")), IsEmpty());
    EXPECT_THAT(reason_of_failure(publish_command(amf_number(1), amf_string("cam1"), from_hex("0A"))),
                IsEmpty());
}

TEST(publish, before_connect_is_refused) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    EXPECT_THAT(reason_of_failure(server, client,
                                  publish_command(amf_number(1), amf_string("cam1"), amf_string("live"))),
                ElementsAre("publish rejected, app mode rejected"));
    RtmpClient other = handshaken_client();
    EXPECT_THAT(reason_of_failure(server, other,
                                  publish_command(amf_number(1), amf_string("a-b"), amf_string("record"))),
                ElementsAre("publish command must indicate 'live' type, not 'record'"))
        << "the type is looked at first";
    RtmpClient third = handshaken_client();
    EXPECT_THAT(reason_of_failure(server, third,
                                  publish_command(amf_number(1), amf_string("a-b"), amf_string("live"))),
                ElementsAre("publish rejected, app mode rejected"))
        << "the name is looked at last";
}

TEST(publish, after_publish_or_play_is_refused) {
    expect_refused_to_both(publish_command(amf_number(1), amf_string("a-b"), amf_string("live")),
                           "publish rejected, stream mode already set");
}

TEST(publish, the_type_and_the_name_may_be_long_strings) {
    ServerProcess server;
    RtmpClient client = connected_client();
    client.send_command(publish_command(amf_number(1), amf_long_string("cam1"), amf_xml_document("live")));
    EXPECT_EQ(client.expect_message(MSG_COMMAND).payload, publish_status(amf_number(1)));
    server.wait_for_line("Connection is publishing 'cam1'");
}

TEST(publish, a_name_that_is_not_a_string_is_the_empty_name) {
    ServerProcess server;
    for (const Bytes& name : {amf_null(), amf_number(4), amf_object({})}) {
        RtmpClient client = connected_client();
        const LineMark mark = server.mark();
        client.send_command(publish_command(amf_number(1), name, amf_string("live")));
        EXPECT_EQ(client.expect_message(MSG_COMMAND).payload, publish_status(amf_number(1)));
        server.wait_for_line("Connection is publishing ''", mark);
    }
}

TEST(publish, an_empty_name_is_accepted_until_media_comes) {
    ServerProcess server;
    RtmpClient client = publishing_client("");
    (void)client.round_trip();
    const LineMark mark = server.mark();
    client.send_audio(1, from_hex("AF 01 00"));
    (void)client.expect_closed_without_answer();
    server.wait_for_consecutive_lines(
        {"A/V packet without a stream name", "A/V error", "Dropping connection"}, mark);
}

TEST(publish, a_second_publisher_of_a_name_is_accepted_and_waits) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient first = publishing_client("cam1");
    RtmpClient second = connected_client();
    (void)first.round_trip();
    const LineMark mark = server.mark();
    EXPECT_EQ(second.publish("cam1").payload, publish_status(amf_number(3)));
    EXPECT_THAT(server.lines_since(mark), ElementsAre("Connection is publishing 'cam1'"));
    second.send_audio(1, from_hex("AF 01 22"));
    (void)second.round_trip();
    first.send_audio(1, from_hex("AF 01 11"));
    EXPECT_EQ(player.expect_message(MSG_AUDIO).payload, from_hex("AF 01 11"))
        << "the second one's is not relayed";
}

TEST(publish, prints_the_time_reset_once_even_without_players) {
    ServerProcess server;
    RtmpClient client = publishing_client("cam1");
    client.send_audio(1, from_hex("AF 01 00"));
    client.send_video(1, from_hex("27 01 00"));
    (void)client.round_trip();
    EXPECT_EQ(server.count(TIME_RESET), 1U);
}

TEST(stream_names, letters_digits_and_underscores_are_valid) {
    ServerProcess server;
    for (const char* name : {"cam1", "cam_01", "_", "A", "z", "0", "0123456789", "ABCxyz_9", ""}) {
        RtmpClient publisher = connected_client();
        EXPECT_EQ(publisher.publish(name).payload, publish_status(amf_number(3))) << name;
        RtmpClient player = connected_client();
        EXPECT_EQ(player.play(name).payload, play_status(amf_number(3))) << name;
    }
}

TEST(stream_names, any_other_byte_is_refused_by_publish_and_play_with_the_same_words) {
    ServerProcess server;
    for (const std::string& name :
         {std::string("a-b"), std::string("a/b"), std::string("a.b"), std::string("a b"),
          std::string("mp4:a"), std::string("a?b=c"), std::string("caf\xE9"), std::string("\xC3\xA9"),
          std::string("a\0b", 3), std::string("a\n"), std::string("@"), std::string("["), std::string("`"),
          std::string("{"), std::string("/"), std::string(":")}) {
        RtmpClient publisher = connected_client();
        EXPECT_THAT(reason_of_failure(server, publisher,
                                      publish_command(amf_number(1), amf_string(name), amf_string("live"))),
                    ElementsAre("play rejected, invalid stream name"))
            << name;
        RtmpClient player = connected_client();
        EXPECT_THAT(reason_of_failure(server, player, play_command(amf_number(1), amf_string(name))),
                    ElementsAre("play rejected, invalid stream name"))
            << name;
    }
}

TEST(play, is_answered_and_printed) {
    ServerProcess server;
    RtmpClient client = connected_client("ombrex-output");
    const LineMark mark = server.mark();
    client.send_message({.payload = play_command(amf_number(4), amf_string("cam1")),
                         .csid = 8,
                         .timestamp = 44,
                         .stream_id = 3});
    EXPECT_EQ(
        to_hex(client.expect_message(MSG_COMMAND).raw),
        to_hex(chunked({.payload = play_status(amf_number(4)), .csid = 8, .timestamp = 44, .stream_id = 3})));
    EXPECT_TRUE(client.round_trip().empty()) << "one message and no other";
    EXPECT_THAT(server.lines_since(mark), ElementsAre("Connection for play subscribed to 'cam1'"));
}

TEST(play, works_with_either_application) {
    ServerProcess server;
    RtmpClient client = connected_client("ombrex-live");
    EXPECT_EQ(client.play("cam1").payload, play_status(amf_number(3)));
}

TEST(play, start_and_duration_are_decoded_and_ignored) {
    ServerProcess server;
    for (const Bytes& rest : {amf_number(-2), amf_number(-2) + amf_number(-1), amf_null() + amf_object({}),
                              amf_number(0) + amf_number(0) + from_hex("0A")}) {
        RtmpClient client = connected_client();
        client.send_command(play_command(amf_number(4), amf_string("cam1") + rest));
        EXPECT_EQ(client.expect_message(MSG_COMMAND).payload, play_status(amf_number(4)));
    }
    for (const Bytes& rest : {from_hex("0A"), amf_number(0) + from_hex("0A")}) {
        RtmpClient client = connected_client();
        EXPECT_THAT(reason_of_failure(server, client, play_command(amf_number(4), amf_string("cam1") + rest)),
                    IsEmpty());
    }
}

TEST(play, missing_arguments_silently_drop_the_client) {
    EXPECT_THAT(reason_of_failure(amf_string("play")), IsEmpty());
    EXPECT_THAT(reason_of_failure(amf_string("play") + amf_number(1)), IsEmpty());
    EXPECT_THAT(reason_of_failure(play_command(amf_number(1), "")), IsEmpty());
    EXPECT_THAT(reason_of_failure(play_command(amf_number(1), from_hex("02 0005 61"))), IsEmpty());
}

TEST(play, before_connect_is_refused) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    EXPECT_THAT(reason_of_failure(server, client, play_command(amf_number(1), amf_string("a-b"))),
                ElementsAre("play rejected, app mode rejected"));
}

TEST(play, after_publish_or_play_is_refused) {
    expect_refused_to_both(play_command(amf_number(1), amf_string("a-b")),
                           "play rejected, stream mode already set");
}

TEST(play, of_the_empty_name_subscribes_to_nothing) {
    ServerProcess server;
    RtmpClient client = connected_client();
    const LineMark mark = server.mark();
    EXPECT_EQ(client.play("").payload, play_status(amf_number(3)));
    EXPECT_EQ(server.err().count_starting("Connection for play subscribed", mark), 0U);
}

TEST(play, before_any_publisher_waits_for_one) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_audio(1, from_hex("AF 01 11"));
    EXPECT_EQ(player.expect_message(MSG_AUDIO).payload, from_hex("AF 01 11"));
}

TEST(play, a_player_that_leaves_is_unsubscribed) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    (void)player.round_trip();
    const LineMark mark = server.mark();
    player.close();
    EXPECT_THAT(server.lines_through("Connection for play unsubscribed from 'cam1'", mark),
                ElementsAre("Thread 1 died", "WARNING: Thread terminated unexpectedly", "Dropping connection",
                            "Connection for play unsubscribed from 'cam1'"));
}
