#include "app/metadata.h"

#include <string>
#include <utility>
#include <vector>

#include "core/limits.h"
#include "tests/app/app_fixture.h"
#include "tests/support/assertion_line.h"

namespace {

using Messages = std::vector<QueuedMessage>;

const Bytes SET_DATA_FRAME = amf_string("@setDataFrame");
const Bytes ON_META_DATA = amf_string("onMetaData");

Bytes number_member(const std::string& key, double number) {
    return amf_object({{key, amf_number(number)}});
}

class metadata_test : public AppFixture {};
using metadata_death_test = metadata_test;

}  // namespace

TEST_F(metadata_test, before_play_or_publish_is_ignored_without_being_decoded) {
    RTMPConnection& conn = add_client();
    for (const Bytes& payload : {Bytes(), bytes_of({0x0A}), set_metadata(amf_object({}))}) {
        EXPECT_EQ(data_message(conn, payload), "AMF0 notify without a stream name\n");
    }
    EXPECT_FALSE(conn.close_requested);
    EXPECT_EQ(conn.metadata.type, AMF_Type::Undefined);
    EXPECT_EQ(stream_count(), 0U);
}

TEST_F(metadata_test, an_empty_message_counts_as_activity_of_publishers_and_players) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    for (RTMPConnection* const conn : {&publisher, &player}) {
        fake_clock_us += 7;
        EXPECT_EQ(data_message(*conn, ""), "");
        EXPECT_EQ(record().last_activity_us, fake_clock_us);
        EXPECT_FALSE(conn->close_requested);
    }
}

TEST_F(metadata_test, a_message_with_a_length_but_no_bytes_ends_the_connection) {
    RTMPConnection& conn = add_publisher();
    RTMP_Packet pkt = make_packet(MESSAGE_AMF0_DATA, 0, "");
    pkt.chunk.message.data_length = 5;
    receive(conn, std::move(pkt));
    EXPECT_EQ(idle(conn), "AMF0 error notify\n");
    EXPECT_TRUE(conn.close_requested);
}

TEST_F(metadata_test, other_notifications_are_named_and_ignored) {
    struct Case {
        Bytes payload;
        std::string printed;
    };
    for (const Case& row : std::vector<Case>{
             {ON_META_DATA + amf_object({}), "Unknown RTMP client notification: 'onMetaData'\n"},
             {amf_string("@SetDataFrame") + ON_META_DATA,
              "Unknown RTMP client notification: '@SetDataFrame'\n"},
             {amf_number(7), "Unknown RTMP client notification: ''\n"},
             {amf_string("%s%n") + bytes_of({0x0A}), "Unknown RTMP client notification: '%s%n'\n"},
             {SET_DATA_FRAME + amf_string("x"), "Unexpected setDataFrame and 'x'\n"},
             {SET_DATA_FRAME + amf_object({}), "Unexpected setDataFrame and ''\n"},
             {SET_DATA_FRAME + amf_string("onMetadata") + bytes_of({0x0A}),
              "Unexpected setDataFrame and 'onMetadata'\n"},
         }) {
        RTMPConnection& conn = add_publisher();
        EXPECT_EQ(data_message(conn, row.payload), row.printed);
        EXPECT_FALSE(conn.close_requested);
        EXPECT_EQ(conn.metadata.type, AMF_Type::Undefined);
    }
}

TEST_F(metadata_test, a_message_that_ends_too_early_or_is_malformed_ends_the_connection) {
    struct Case {
        Bytes payload;
        std::string printed;
    };
    const Bytes bad = bytes_of({0x0A});
    const Bytes both = SET_DATA_FRAME + ON_META_DATA;
    for (const Case& row : std::vector<Case>{
             {bad, ""},
             {SET_DATA_FRAME.substr(0, 10), ""},
             {SET_DATA_FRAME, ""},
             {SET_DATA_FRAME + bad, ""},
             {both, ""},
             {both + bad, ""},
             {both + amf_object({{"width", amf_number(1)}}).substr(0, 14), ""},
             {both + amf_ecma_array(1, {}), "AMF0 error ECMA array too short vs count\n"},
             {both + amf_ecma_array(1, {{"a", amf_null()}, {"b", amf_null()}}),
              "AMF0 error ECMA array too long vs count\n"},
         }) {
        RTMPConnection& conn = add_publisher();
        EXPECT_EQ(data_message(conn, row.payload), row.printed + "AMF0 error notify\n")
            << to_hex(row.payload);
        EXPECT_TRUE(conn.close_requested);
        EXPECT_EQ(conn.metadata.type, AMF_Type::Undefined);
    }
}

TEST_F(metadata_test, of_a_player_is_ignored) {
    RTMPConnection& player = add_player();
    EXPECT_EQ(data_message(player, set_metadata(number_member("width", 1280))),
              "onMetaData ignored from client\n");
    EXPECT_EQ(player.metadata.type, AMF_Type::Undefined);
    EXPECT_EQ(player.stream_format.video_width, -1);
    EXPECT_FALSE(player.close_requested);
}

TEST_F(metadata_test, of_the_publisher_is_dumped_kept_and_sent_to_every_player) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& first = add_player();
    first.stream_id = 99;
    RTMPConnection& second = add_player();
    second.stream_id = 1;
    RTMPConnection& stranger = add_player("cam2");
    fake_clock_us += 7;
    EXPECT_EQ(data_message(publisher, set_metadata(number_member("width", 1280))),
              "onMetaData submitted by client\n"
              "\tAMF var Object\n"
              "\t  Object: {\n"
              "\t    'width':\n"
              "\t      AMF var Number\n"
              "\t        Value: 1280.000\n"
              "\t  }\n");
    const Bytes payload = ON_META_DATA + number_member("width", 1280);
    ASSERT_EQ(first.connection_out.size(), 1U);
    EXPECT_EQ(first.connection_out.front().chunk.fmt, 0U);
    EXPECT_EQ(first.connection_out.front().chunk.message_length, 0U);
    EXPECT_EQ(take_queued(first), (Messages{{MESSAGE_AMF0_DATA, 0, payload, 9, 99}}));
    EXPECT_EQ(take_queued(second), (Messages{{MESSAGE_AMF0_DATA, 0, payload, 9, 1}}));
    EXPECT_TRUE(stranger.connection_out.empty());
    EXPECT_TRUE(publisher.connection_out.empty());
    EXPECT_EQ(publisher.metadata.format.video_width, 1280);
    EXPECT_EQ(record().last_activity_us, fake_clock_us);
}

TEST_F(metadata_test, names_may_be_any_kind_of_string_and_nothing_after_the_value_is_read) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    data_message(publisher, amf_long_string("@setDataFrame") + amf_xml_document("onMetaData") +
                                amf_object({}) + bytes_of({0x0A}));
    EXPECT_EQ(take_queued(player), (Messages{{MESSAGE_AMF0_DATA, 0, ON_META_DATA + amf_object({}), 9, 0}}));
    EXPECT_FALSE(publisher.close_requested);
}

TEST_F(metadata_test, an_ecma_array_is_relayed_sorted_and_without_duplicates) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    data_message(publisher, set_metadata(amf_ecma_array(
                                3, {{"b", amf_number(1)}, {"a", amf_string("x")}, {"b", amf_number(2)}})));
    EXPECT_EQ(
        take_queued(player),
        (Messages{{MESSAGE_AMF0_DATA, 0,
                   ON_META_DATA + amf_ecma_array(2, {{"a", amf_string("x")}, {"b", amf_number(2)}}), 9, 0}}));
}

TEST_F(metadata_test, of_another_type_is_kept_but_not_sent) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    data_message(publisher, set_metadata(number_member("width", 1280)));
    take_queued(player);
    EXPECT_EQ(data_message(publisher, set_metadata(amf_number(7))),
              "onMetaData submitted by client\n\tAMF var Number\n\t  Value: 7.000\n");
    EXPECT_EQ(publisher.metadata.type, AMF_Type::Number);
    EXPECT_EQ(publisher.stream_format.video_width, 1280);
    EXPECT_TRUE(player.connection_out.empty());
}

TEST_F(metadata_test, the_same_metadata_is_sent_again) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    const Bytes metadata = amf_object({{"height", amf_number(720)}, {"width", amf_number(1280)}});
    data_message(publisher, set_metadata(metadata));
    data_message(publisher, set_metadata(metadata));
    EXPECT_EQ(take_queued(player), (Messages(2, {MESSAGE_AMF0_DATA, 0, ON_META_DATA + metadata, 9, 0})));
    EXPECT_FALSE(player.close_requested);
}

TEST_F(metadata_test, sizes_are_rounded_half_up) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    data_message(publisher,
                 set_metadata(amf_object({{"width", amf_number(1280.4)}, {"height", amf_number(719.5)}})));
    for (const RTMPConnection* const conn : {&publisher, &player}) {
        EXPECT_EQ(conn->stream_format.video_width, 1280);
        EXPECT_EQ(conn->stream_format.video_height, 720);
    }
}

TEST_F(metadata_test, another_format_drops_every_player_that_was_sent_one) {
    struct Case {
        std::string key;
        double other;
        std::string printed;
    };
    const Bytes first = amf_object({{"width", amf_number(1920)},
                                    {"height", amf_number(1080)},
                                    {"audiocodecid", amf_number(10)},
                                    {"videocodecid", amf_number(7)}});
    for (const Case& row : std::vector<Case>{{"width", 1280, "width changed\n"},
                                             {"height", 720, "height changed\n"},
                                             {"audiocodecid", 2, "audio fourcc changed\n"},
                                             {"videocodecid", 2, "video fourcc changed\n"}}) {
        RTMPConnection& publisher = add_publisher();
        RTMPConnection& told = add_player();
        RTMPConnection& told_too = add_player();
        data_message(publisher, set_metadata(first));
        take_queued(told);
        RTMPConnection& fresh = add_client();
        fresh.stream_mode = "play";
        fresh.stream_name = "cam1";
        record().players.push_back(fresh.conn_idx);

        const std::string printed = data_message(publisher, set_metadata(number_member(row.key, row.other)));
        EXPECT_TRUE(printed.ends_with("  }\n" + row.printed + row.printed)) << printed;
        EXPECT_TRUE(told.close_requested);
        EXPECT_TRUE(told.connection_out.empty());
        EXPECT_TRUE(told_too.close_requested);
        EXPECT_FALSE(fresh.close_requested);
        EXPECT_EQ(fresh.connection_out.size(), 1U);
        EXPECT_FALSE(publisher.close_requested);
        printed_by([] { free_all_connections(); });
    }
}

TEST_F(metadata_test, an_absent_member_leaves_the_recorded_value) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    data_message(publisher, set_metadata(number_member("width", 1280)));
    take_queued(player);
    data_message(publisher, set_metadata(number_member("height", 720)));
    EXPECT_EQ(take_queued(player).size(), 1U);
    for (const RTMPConnection* const conn : {&publisher, &player}) {
        EXPECT_EQ(conn->stream_format.video_width, 1280);
        EXPECT_EQ(conn->stream_format.video_height, 720);
    }
}

TEST_F(metadata_test, the_publishers_own_format_follows_its_metadata) {
    RTMPConnection& publisher = add_publisher();
    data_message(publisher, set_metadata(number_member("audiocodecid", 10)));
    data_message(publisher, set_metadata(number_member("audiocodecid", 2)));
    EXPECT_EQ(publisher.stream_format.audio_codec_id, 2U);
    EXPECT_FALSE(publisher.close_requested);
}

TEST_F(metadata_test, of_a_rival_is_kept_for_later) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& rival = add_publisher();
    RTMPConnection& player = add_player();
    EXPECT_TRUE(
        data_message(rival, set_metadata(number_member("width", 1280)))
            .ends_with("\t  }\n"
                       "client is publisher but not current publisher, holding onMetaData for later\n"));
    EXPECT_EQ(rival.metadata.format.video_width, 1280);
    EXPECT_EQ(rival.stream_format.video_width, -1);
    EXPECT_TRUE(player.connection_out.empty());
    EXPECT_EQ(publisher.metadata.type, AMF_Type::Undefined);
}

TEST_F(metadata_test, of_a_publisher_whose_record_has_no_publisher_is_sent) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    record().publisher = NO_CONNECTION;
    data_message(publisher, set_metadata(amf_object({})));
    EXPECT_EQ(take_queued(player).size(), 1U);
    EXPECT_EQ(record().publisher, NO_CONNECTION);
}

TEST_F(metadata_test, is_sent_only_to_listed_connections_that_play) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& listed = add_player();
    listed.stream_mode = "publish";
    RTMPConnection& player = add_player();
    record().players.insert(record().players.begin(), MAX_CONNECTIONS - 1);
    data_message(publisher, set_metadata(amf_object({})));
    record().players.erase(record().players.begin());
    EXPECT_TRUE(listed.connection_out.empty());
    EXPECT_EQ(take_queued(player).size(), 1U);
}

TEST_F(metadata_test, of_more_than_65536_bytes_is_recorded_but_reaches_no_player) {
    // Name, object, key and end: 13 + 1 + 3 + 3 bytes; marker and length of the text: 3.
    constexpr std::size_t LONGEST_TEXT = 65536 - 13 - 1 - 3 - 3 - 3;
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    const Bytes longest = amf_object({{"t", amf_string(std::string(LONGEST_TEXT, 'x'))}});
    data_message(publisher, set_metadata(longest));
    EXPECT_EQ(take_queued(player), (Messages{{MESSAGE_AMF0_DATA, 0, ON_META_DATA + longest, 9, 0}}));

    data_message(publisher, set_metadata(amf_object({{"t", amf_string(std::string(LONGEST_TEXT, 'x'))},
                                                     {"width", amf_number(7)}})));
    EXPECT_TRUE(player.connection_out.empty());
    EXPECT_EQ(player.stream_format.video_width, 7);
    EXPECT_EQ(publisher.stream_format.video_width, 7);
    EXPECT_FALSE(player.close_requested);
    EXPECT_FALSE(publisher.close_requested);
}

// Metadata of 100 KB cannot be sent to any player; otherwise it is handled like any other.
TEST_F(metadata_test, that_is_too_large_is_dumped_and_silently_sets_the_format_of_every_player) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& first = add_player();
    RTMPConnection& second = add_player();
    EXPECT_EQ(data_message(publisher, set_metadata(too_large({{"width", amf_number(1280)},
                                                              {"height", amf_number(720)},
                                                              {"audiocodecid", amf_number(10)},
                                                              {"videocodecid", amf_number(7)}}))),
              "onMetaData submitted by client\n"
              "\tAMF var Object\n"
              "\t  Object: {\n"
              "\t    'audiocodecid':\n\t      AMF var Number\n\t        Value: 10.000\n"
              "\t    'height':\n\t      AMF var Number\n\t        Value: 720.000\n"
              "\t    'text':\n\t      AMF var LongString\n\t        Value: '" +
                  LARGE_TEXT +
                  "'\n"
                  "\t    'videocodecid':\n\t      AMF var Number\n\t        Value: 7.000\n"
                  "\t    'width':\n\t      AMF var Number\n\t        Value: 1280.000\n"
                  "\t  }\n");
    for (const RTMPConnection* const conn : {&publisher, &first, &second}) {
        EXPECT_EQ(conn->stream_format.video_width, 1280);
        EXPECT_EQ(conn->stream_format.video_height, 720);
        EXPECT_EQ(conn->stream_format.audio_codec_id, 10U);
        EXPECT_EQ(conn->stream_format.video_codec_id, 7U);
        EXPECT_TRUE(conn->connection_out.empty());
        EXPECT_FALSE(conn->close_requested);
    }
}

TEST_F(metadata_test, that_is_too_large_drops_every_player_that_was_sent_another_format) {
    struct Case {
        std::string key;
        std::string printed;
    };
    for (const Case& row : std::vector<Case>{{"width", "width changed\n"},
                                             {"height", "height changed\n"},
                                             {"audiocodecid", "audio fourcc changed\n"},
                                             {"videocodecid", "video fourcc changed\n"}}) {
        RTMPConnection& publisher = add_publisher();
        RTMPConnection& first = add_player();
        RTMPConnection& second = add_player();
        data_message(publisher, set_metadata(number_member(row.key, 1)));
        take_queued(first);
        take_queued(second);
        const std::string printed =
            data_message(publisher, set_metadata(too_large({{row.key, amf_number(2)}})));
        EXPECT_TRUE(printed.ends_with("  }\n" + row.printed + row.printed));
        for (const RTMPConnection* const player : {&first, &second}) {
            EXPECT_TRUE(player->close_requested);
            EXPECT_TRUE(player->connection_out.empty());
        }
        EXPECT_FALSE(publisher.close_requested);
        printed_by([] { free_all_connections(); });
    }
}

TEST_F(metadata_test, that_can_be_sent_replaces_metadata_that_was_too_large) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    data_message(publisher, set_metadata(too_large({})));
    data_message(publisher, set_metadata(amf_object({})));
    EXPECT_EQ(take_queued(player), (Messages{{MESSAGE_AMF0_DATA, 0, ON_META_DATA + amf_object({}), 9, 0}}));
    RTMPConnection& late_player = add_client();
    command(late_player, play_command("cam1"));
    EXPECT_EQ(take_queued(late_player).size(), 2U);
}

TEST_F(metadata_test, numbers_outside_the_integer_range_count_as_absent) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    data_message(publisher, set_metadata(amf_object({{"width", amf_number(1e300)},
                                                     {"height", from_hex("00 7FF8000000000000")},
                                                     {"audiocodecid", amf_number(-1)},
                                                     {"videocodecid", from_hex("00 7FF0000000000000")}})));
    EXPECT_EQ(take_queued(player).size(), 1U);
    EXPECT_EQ(player.stream_format.video_width, -1);
    EXPECT_EQ(player.stream_format.video_height, -1);
    EXPECT_EQ(player.stream_format.audio_codec_id, 0U);
    EXPECT_EQ(player.stream_format.video_codec_id, 0U);
}

TEST_F(metadata_test, of_a_connection_without_a_name_is_not_forwarded) {
    RTMPConnection& conn = add_connection();
    conn.metadata.type = AMF_Type::Object;
    forward_metadata_to_players(conn);
    EXPECT_EQ(stream_count(), 0U);
}

TEST_F(metadata_death_test, a_player_outside_the_table_ends_the_process) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    RTMPConnection& publisher = add_publisher();
    const auto tell_slot = [&](std::size_t slot) {
        record().players = {slot};
        publisher.metadata.type = AMF_Type::Object;
        forward_metadata_to_players(publisher);
    };
    EXPECT_EXIT(tell_slot(MAX_CONNECTIONS), testing::KilledBySignal(SIGABRT),
                assertion_line("get_connection", "i < MAX_CONNECTIONS"));
}
