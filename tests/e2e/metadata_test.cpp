// Data messages: which of them are a stream's metadata, who receives it and in which form, and which players
// it drops.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "tests/support/control_peer.h"
#include "tests/support/expected_replies.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

using Lines = std::vector<std::string>;

// Returns the message sent to a player with this message stream id.
Bytes metadata_message(const Bytes& value, std::uint32_t stream_id = 0) {
    return chunked({.type = MSG_DATA,
                    .payload = amf_string("onMetaData") + value,
                    .csid = 9,
                    .timestamp = 0,
                    .stream_id = stream_id});
}

Bytes size_object(double width, double height) {
    return amf_object({{"height", amf_number(height)}, {"width", amf_number(width)}});
}

// A stream with one player that has already joined.
struct Stream {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient player = playing_client("cam1");

    // Sends the metadata and expects the player to get it in the given form.
    void expect_forwarded(const Bytes& sent, const Bytes& received) {
        publisher.send_metadata(sent);
        EXPECT_EQ(to_hex(player.expect_message(MSG_DATA).raw), to_hex(metadata_message(received)));
    }
    void expect_forwarded(const Bytes& value) { expect_forwarded(value, value); }

    // The size is the one that the list of connections shows.
    void expect_publisher_size(const std::string& size) const {
        EXPECT_THAT(ControlPeer().ask("list connections", {"publish"}).values("connection"),
                    ElementsAre(StartsWith("0\tcam1\tpublish\t" + size + "\t")));
    }

    // Sends the metadata and expects the player to be dropped for this reason, without a message.
    void expect_player_dropped(const Bytes& sent, const std::string& reason) {
        (void)publisher.round_trip();
        const LineMark mark = server.mark();
        publisher.send_metadata(sent);
        (void)player.expect_closed_without_answer();
        Lines lines = server.lines_through("Dropping connection", mark);
        ASSERT_GE(lines.size(), 3U);
        // The reason comes after the dump of the submitted value.
        lines.erase(lines.begin(), lines.end() - 3);
        EXPECT_THAT(lines, ElementsAre(reason, "Connection for play unsubscribed from 'cam1'",
                                       "Dropping connection"));
        for (const char* other :
             {"width changed", "height changed", "audio fourcc changed", "video fourcc changed"}) {
            EXPECT_EQ(server.count(other, mark), other == reason ? 1U : 0U);
        }
        EXPECT_TRUE(publisher.round_trip().empty()) << "the publisher stays";
    }
};

void expect_publisher_dropped(const Bytes& data_message, const Lines& reason = {}) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    (void)publisher.round_trip();
    const LineMark mark = server.mark();
    publisher.send_data(data_message);
    (void)publisher.expect_closed_without_answer();
    Lines expected = reason;
    expected.emplace_back("AMF0 error notify");
    expected.emplace_back("Dropping connection");
    EXPECT_EQ(server.lines_through("Dropping connection", mark), expected);
}

// Sends a data message that changes nothing; returns the lines about it.
Lines lines_of_ignored(const ServerProcess& server, RtmpClient& client, const Bytes& data_message) {
    (void)client.round_trip();
    const LineMark mark = server.mark();
    client.send_data(data_message);
    EXPECT_TRUE(client.round_trip().empty());
    return server.lines_since(mark);
}

}  // namespace

TEST(metadata, is_shown_kept_and_sent_to_the_player_without_its_wrapper) {
    Stream stream;
    (void)stream.publisher.round_trip();
    const LineMark mark = stream.server.mark();
    const Bytes value = amf_object({{"width", amf_number(1280)}, {"encoder", amf_string("x")}});
    stream.publisher.send_metadata(value);
    const RtmpMessage message = stream.player.expect_message(MSG_DATA);
    EXPECT_EQ(
        to_hex(message.raw),
        to_hex(metadata_message(amf_object({{"encoder", amf_string("x")}, {"width", amf_number(1280)}}))));
    EXPECT_THAT(
        stream.server.lines_since(mark),
        ElementsAre("onMetaData submitted by client", "\tAMF var Object", "\t  Object: {",
                    "\t    'encoder':", "\t      AMF var String", "\t        Value: 'x'",
                    "\t    'width':", "\t      AMF var Number", "\t        Value: 1280.000", "\t  }"));
}

TEST(metadata, is_sent_again_when_it_arrives_again) {
    Stream stream;
    const Bytes value = amf_ecma_array(4, {{"audiocodecid", amf_number(10)},
                                           {"height", amf_number(720)},
                                           {"videocodecid", amf_number(7)},
                                           {"width", amf_number(1280)}});
    for (int i = 0; i < 3; ++i) {
        stream.expect_forwarded(value);
    }
}

TEST(metadata, carries_the_message_stream_of_each_player) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient player = connected_client();
    const std::uint32_t first_id = player.create_stream();
    (void)player.play("cam1");
    RtmpClient other = connected_client();
    const std::uint32_t second_id = other.create_stream();
    (void)other.play("cam1");
    ASSERT_NE(first_id, second_id);
    publisher.send_metadata(size_object(1, 2));
    EXPECT_EQ(to_hex(player.expect_message(MSG_DATA).raw),
              to_hex(metadata_message(size_object(1, 2), first_id)));
    EXPECT_EQ(to_hex(other.expect_message(MSG_DATA).raw),
              to_hex(metadata_message(size_object(1, 2), second_id)));
}

TEST(metadata, a_late_player_gets_it_right_after_its_start) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_metadata(size_object(640, 480));
    (void)publisher.round_trip();
    RtmpClient player = connected_client();
    const std::uint32_t stream_id = player.create_stream();
    const LineMark mark = server.mark();
    player.send_play("cam1");
    EXPECT_EQ(player.read_message().payload, play_status(amf_number(3)));
    EXPECT_EQ(to_hex(player.read_message().raw), to_hex(metadata_message(size_object(640, 480), stream_id)));
    EXPECT_THAT(server.lines_since(mark), ElementsAre("Connection for play subscribed to 'cam1'",
                                                      "Repeating publisher's onMeta to new client"));
}

TEST(metadata, a_late_player_gets_the_latest) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_metadata(size_object(640, 480));
    publisher.send_metadata(amf_object({{"b", amf_null()}}));
    (void)publisher.round_trip();
    RtmpClient player = playing_client("cam1");
    EXPECT_EQ(player.expect_message(MSG_DATA).raw, metadata_message(amf_object({{"b", amf_null()}})));
}

TEST(metadata, a_late_player_gets_none_when_there_is_none_to_repeat) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    {
        RtmpClient player = playing_client("cam1");
        EXPECT_TRUE(player.round_trip().empty());
    }
    // A value that is not an object replaces the stored metadata.
    for (const Bytes& value : {amf_string("text"), amf_null(), amf_number(4), bytes_of({AMF_OBJECT_END})}) {
        publisher.send_metadata(size_object(640, 480));
        publisher.send_metadata(value);
        (void)publisher.round_trip();
        RtmpClient player = playing_client("cam1");
        EXPECT_TRUE(player.round_trip().empty());
    }
    EXPECT_EQ(server.count("Repeating publisher's onMeta to new client"), 0U);
}

TEST(metadata, a_value_that_is_not_an_object_is_kept_but_not_sent) {
    Stream stream;
    for (const Bytes& value : {amf_string("text"), amf_null(), amf_undefined()}) {
        stream.publisher.send_metadata(value);
    }
    EXPECT_TRUE(stream.publisher.round_trip().empty());
    EXPECT_TRUE(stream.player.round_trip().empty());
    EXPECT_EQ(stream.server.count("onMetaData submitted by client"), 3U);
}

TEST(metadata, is_relayed_in_the_servers_own_form) {
    Stream stream;
    stream.expect_forwarded(amf_object({}));
    stream.expect_forwarded(amf_ecma_array(0, {}));
    stream.expect_forwarded(from_hex("03"), amf_object({}));
    stream.expect_forwarded(from_hex("08 00000000"), amf_ecma_array(0, {}));
    stream.expect_forwarded(amf_object({{"b", amf_boolean(2)}, {"a", amf_null()}, {"b", amf_boolean(3)}}),
                            amf_object({{"a", amf_null()}, {"b", amf_boolean(3)}}));
    stream.expect_forwarded(
        amf_ecma_array(3, {{"x", amf_null()}, {"x", amf_undefined()}, {"a", amf_string("")}}),
        amf_ecma_array(2, {{"a", amf_string("")}, {"x", amf_undefined()}}));
    stream.expect_forwarded(from_hex("03 0001 61 03 0001 62 05"),
                            amf_object({{"a", amf_object({{"b", amf_null()}})}}));
    stream.expect_forwarded(amf_object({{"l", amf_long_string("x")}, {"m", amf_xml_document("y")}}));
}

TEST(metadata, an_object_that_cannot_be_sent_is_not_sent) {
    Stream stream;
    stream.publisher.send_metadata(amf_object({{"a", bytes_of({AMF_OBJECT_END})}}));
    EXPECT_TRUE(stream.publisher.round_trip().empty());
    EXPECT_TRUE(stream.player.round_trip().empty());
}

TEST(metadata, may_be_65536_bytes_with_its_name_and_no_longer) {
    Stream stream;
    const auto object_for = [](std::size_t message_bytes) {
        const std::size_t around =
            (amf_string("onMetaData") + amf_object({{"text", amf_long_string("")}, {"width", amf_number(5)}}))
                .size();
        return amf_object(
            {{"text", amf_long_string(std::string(message_bytes - around, 'x'))}, {"width", amf_number(5)}});
    };
    stream.publisher.send_metadata(object_for(65537));
    stream.publisher.send_metadata(object_for(65536));
    const RtmpMessage message = stream.player.expect_message(MSG_DATA);
    EXPECT_EQ(message.payload.size(), 65536U) << "the longer one was left out";
    EXPECT_EQ(message.payload, amf_string("onMetaData") + object_for(65536));
}

TEST(metadata, if_too_long_to_send_still_sets_the_players_format) {
    Stream stream;
    stream.publisher.send_metadata(
        amf_object({{"text", amf_long_string(std::string(70000, 'x'))}, {"width", amf_number(5)}}));
    stream.expect_player_dropped(amf_object({{"width", amf_number(6)}}), "width changed");
}

TEST(metadata, if_too_long_to_send_is_repeated_for_a_late_player_only_in_the_log) {
    Stream stream;
    stream.publisher.send_metadata(
        amf_object({{"text", amf_long_string(std::string(100000, 'x'))}, {"width", amf_number(5)}}));
    (void)stream.publisher.round_trip();
    RtmpClient late_player = playing_client("cam1");
    EXPECT_TRUE(late_player.round_trip().empty());
    EXPECT_EQ(stream.server.count("Repeating publisher's onMeta to new client"), 1U);
    stream.publisher.send_metadata(amf_object({{"width", amf_number(6)}}));
    (void)late_player.expect_closed_without_answer();
    EXPECT_EQ(stream.server.count("width changed"), 2U);
}

TEST(metadata, arrives_before_media_that_was_sent_after_it) {
    Stream stream;
    stream.publisher.send_metadata(size_object(1, 2));
    stream.publisher.send_audio(1, from_hex("AF 01 11"));
    EXPECT_EQ(stream.player.read_message().type, MSG_DATA);
    EXPECT_EQ(stream.player.read_message().type, MSG_AUDIO);
}

TEST(metadata, a_new_format_drops_a_player_that_was_sent_another) {
    struct Row {
        const char* key;
        const char* reason;
    };
    for (const Row& row :
         {Row{"width", "width changed"}, Row{"height", "height changed"},
          Row{"audiocodecid", "audio fourcc changed"}, Row{"videocodecid", "video fourcc changed"}}) {
        Stream stream;
        stream.expect_forwarded(amf_object({{row.key, amf_number(10)}}));
        stream.expect_player_dropped(amf_object({{row.key, amf_number(11)}}), row.reason);
    }
}

TEST(metadata, every_player_that_was_sent_another_width_is_dropped_and_a_new_one_is_served) {
    Stream stream;
    RtmpClient second = playing_client("cam1");
    stream.expect_forwarded(size_object(1280, 720));
    (void)second.expect_message(MSG_DATA);
    stream.publisher.send_metadata(size_object(1920, 720));
    (void)stream.player.expect_closed_without_answer();
    (void)second.expect_closed_without_answer();
    stream.server.wait_for_line("Connection for play unsubscribed from 'cam1'",
                                stream.server.wait_for_line("Connection for play unsubscribed from 'cam1'"));
    EXPECT_EQ(stream.server.count("width changed"), 2U);
    RtmpClient third = playing_client("cam1");
    EXPECT_EQ(third.expect_message(MSG_DATA).raw, metadata_message(size_object(1920, 720)));
}

TEST(metadata, only_the_first_difference_is_reported) {
    const std::vector<const char*> keys = {"width", "height", "audiocodecid", "videocodecid"};
    const std::vector<const char*> reasons = {"width changed", "height changed", "audio fourcc changed",
                                              "video fourcc changed"};
    for (std::size_t first = 0; first < keys.size(); ++first) {
        Stream stream;
        AmfMembers told;
        AmfMembers changed;
        for (std::size_t i = 0; i < keys.size(); ++i) {
            told.emplace_back(keys[i], amf_number(20));
            changed.emplace_back(keys[i], amf_number(i < first ? 20 : 30));
        }
        stream.publisher.send_metadata(amf_object(told));
        (void)stream.player.expect_message(MSG_DATA);
        stream.expect_player_dropped(amf_object(changed), reasons[first]);
    }
}

TEST(metadata, sizes_are_rounded_half_up) {
    Stream stream;
    stream.expect_forwarded(size_object(1280.4, 719.5));
    stream.expect_forwarded(size_object(1280, 720));
    stream.expect_forwarded(size_object(1279.5, 720.49));
    stream.expect_player_dropped(size_object(1280.5, 720), "width changed");
}

TEST(metadata, absent_values_stay_unchanged) {
    Stream stream;
    stream.expect_forwarded(size_object(1280, 720));
    stream.expect_forwarded(amf_object({{"height", amf_number(720)}}));
    stream.expect_publisher_size("1280x720");
    stream.expect_forwarded(amf_object({{"width", amf_number(1280)}}));
    stream.expect_publisher_size("1280x720");
    stream.expect_forwarded(amf_object({}));
    stream.expect_publisher_size("1280x720");
    stream.expect_forwarded(size_object(1280, 720));
    stream.expect_player_dropped(amf_object({{"width", amf_number(1281)}}), "width changed");
}

TEST(metadata, values_that_are_not_sizes_or_codecs_count_as_absent) {
    Stream stream;
    const auto all = [](const Bytes& value) {
        return amf_object(
            {{"audiocodecid", value}, {"height", value}, {"videocodecid", value}, {"width", value}});
    };
    const double infinity = std::numeric_limits<double>::infinity();
    stream.expect_forwarded(all(amf_number(10)));
    for (const Bytes& value :
         {amf_string("10.5"), amf_null(), amf_boolean(9), amf_number(0), amf_number(0.49), amf_number(-0.5),
          amf_number(std::nan("")), amf_number(infinity), amf_number(-infinity), amf_number(1e300),
          amf_number(-1e300), amf_number(4294967296.0), amf_number(1e19), amf_object({{"a", amf_null()}})}) {
        stream.expect_forwarded(all(value));
    }
    for (const double value : {-5.0, 2147483648.0}) {
        stream.expect_forwarded(size_object(value, value));
    }
    for (const double value : {-1.0, -5.0, -2147483648.0}) {
        stream.expect_forwarded(
            amf_object({{"audiocodecid", amf_number(value)}, {"videocodecid", amf_number(value)}}));
    }
    stream.expect_forwarded(all(amf_number(10)));
}

TEST(metadata, the_largest_codec_id_counts) {
    Stream stream;
    stream.expect_forwarded(amf_object({{"videocodecid", amf_number(4294967295.0)}}));
    stream.expect_forwarded(amf_object({{"videocodecid", amf_number(4294967295.0)}}));
    stream.expect_player_dropped(amf_object({{"videocodecid", amf_number(4294967294.0)}}),
                                 "video fourcc changed");
}

TEST(metadata, keys_are_compared_exactly) {
    Stream stream;
    stream.expect_forwarded(size_object(1280, 720));
    stream.expect_forwarded(
        amf_object({{"Width", amf_number(1)}, {"widt", amf_number(2)}, {"width ", amf_number(3)}}));
}

TEST(data_messages, before_play_or_publish_are_ignored_with_a_line) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    for (const Bytes& message : {Bytes(), from_hex("0A"), amf_string("@setDataFrame")}) {
        EXPECT_THAT(lines_of_ignored(server, client, message),
                    ElementsAre("AMF0 notify without a stream name"));
    }
}

TEST(data_messages, an_empty_one_is_ignored) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    EXPECT_THAT(lines_of_ignored(server, publisher, ""), IsEmpty());
}

TEST(data_messages, anything_but_setDataFrame_is_ignored_by_name) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    RtmpClient player = playing_client("cam1");
    EXPECT_THAT(lines_of_ignored(server, publisher, amf_string("onMetaData") + size_object(1, 2)),
                ElementsAre("Unknown RTMP client notification: 'onMetaData'"));
    EXPECT_THAT(lines_of_ignored(server, publisher, amf_string("x%s")),
                ElementsAre("Unknown RTMP client notification: 'x%s'"));
    EXPECT_THAT(lines_of_ignored(server, publisher, amf_number(3)),
                ElementsAre("Unknown RTMP client notification: ''"));
    EXPECT_THAT(lines_of_ignored(server, player, amf_string("@setdataframe")),
                ElementsAre("Unknown RTMP client notification: '@setdataframe'"));
    EXPECT_TRUE(player.round_trip().empty());
}

TEST(data_messages, setDataFrame_of_anything_but_onMetaData_is_ignored_by_name) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    EXPECT_THAT(lines_of_ignored(server, publisher, amf_string("@setDataFrame") + amf_string("x")),
                ElementsAre("Unexpected setDataFrame and 'x'"));
    EXPECT_THAT(
        lines_of_ignored(server, publisher, amf_string("@setDataFrame") + amf_null() + size_object(1, 2)),
        ElementsAre("Unexpected setDataFrame and ''"));
}

TEST(data_messages, the_names_may_be_long_strings) {
    Stream stream;
    stream.publisher.send_data(amf_long_string("@setDataFrame") + amf_xml_document("onMetaData") +
                               size_object(1, 2));
    EXPECT_EQ(stream.player.expect_message(MSG_DATA).raw, metadata_message(size_object(1, 2)));
}

TEST(data_messages, a_truncated_one_drops_the_publisher) {
    expect_publisher_dropped(amf_string("@setDataFrame"));
    expect_publisher_dropped(amf_string("@setDataFrame") + amf_string("onMetaData"));
}

TEST(data_messages, one_that_cannot_be_decoded_drops_the_publisher) {
    expect_publisher_dropped(from_hex("0A"));
    expect_publisher_dropped(amf_string("@setDataFrame") + from_hex("0B"));
    expect_publisher_dropped(amf_string("@setDataFrame") + amf_string("onMetaData") + from_hex("0A"));
    expect_publisher_dropped(amf_string("@setDataFrame") + amf_string("onMetaData") + from_hex("03 0001 61"));
    expect_publisher_dropped(
        amf_string("@setDataFrame") + amf_string("onMetaData") + from_hex("08 00000001 0000 09"),
        {"AMF0 error ECMA array too short vs count"});
    expect_publisher_dropped(
        amf_string("@setDataFrame") + amf_string("onMetaData") + from_hex("08 00000000 0001 61 05"),
        {"AMF0 error ECMA array too long vs count"});
}

TEST(data_messages, metadata_from_a_player_is_ignored_with_a_line) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient other = playing_client("cam1");
    EXPECT_THAT(lines_of_ignored(server, player,
                                 amf_string("@setDataFrame") + amf_string("onMetaData") + amf_object({})),
                ElementsAre("onMetaData ignored from client"));
    EXPECT_TRUE(other.round_trip().empty());
}

TEST(data_messages, metadata_of_a_publisher_that_waits_is_held) {
    Stream stream;
    stream.expect_forwarded(amf_object({{"first", amf_null()}}));
    RtmpClient rival = publishing_client("cam1");
    const Lines lines = lines_of_ignored(
        stream.server, rival,
        amf_string("@setDataFrame") + amf_string("onMetaData") + amf_object({{"rival", amf_null()}}));
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), "onMetaData submitted by client");
    EXPECT_EQ(lines.back(), "client is publisher but not current publisher, holding onMetaData for later");
    EXPECT_TRUE(stream.player.round_trip().empty());
    RtmpClient late = playing_client("cam1");
    EXPECT_EQ(late.expect_message(MSG_DATA).raw, metadata_message(amf_object({{"first", amf_null()}})))
        << "a late player gets the current publisher's";
    // Once the publisher is gone and the rival's media has made it the publisher, the rival's metadata is
    // sent again.
    const LineMark mark = stream.server.mark();
    stream.publisher.close();
    stream.server.wait_for_line("Dropping connection", mark);
    rival.send_audio(1, from_hex("AF 01 11"));
    (void)rival.round_trip();
    RtmpClient later = playing_client("cam1");
    EXPECT_EQ(later.expect_message(MSG_DATA).raw, metadata_message(amf_object({{"rival", amf_null()}})));
}
