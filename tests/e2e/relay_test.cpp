// The relay of a publisher's media to the players of its stream.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/live_pair.h"
#include "tests/support/media_bytes.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string REPEATING_AUDIO = "Relay: Repeating audio sequence header";
const std::string REPEATING_VIDEO = "Relay: Repeating video sequence header";

RtmpClient publisher_with_stream_id(std::string_view name) {
    RtmpClient client = connected_client();
    (void)client.create_stream();
    (void)client.publish(name);
    return client;
}

RtmpClient player_with_stream_id(std::string_view name) {
    RtmpClient client = connected_client("ombrex-output");
    (void)client.create_stream();
    (void)client.play(name);
    return client;
}

void expect_media(const RtmpMessage& message, std::uint8_t type, std::uint32_t timestamp,
                  const Bytes& payload) {
    EXPECT_EQ(message.type, type);
    EXPECT_EQ(message.timestamp, timestamp);
    EXPECT_EQ(to_hex(message.payload.substr(0, 32)), to_hex(payload.substr(0, 32)));
    EXPECT_TRUE(message.payload == payload) << "the payload of " << payload.size() << " bytes was changed";
}

}  // namespace

TEST(relay, media_reaches_the_player_byte_for_byte_at_every_size) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    // Around one and two chunks, and the largest message that a chunk header can announce.
    for (const std::size_t size : {6U, 127U, 128U, 129U, 255U, 256U, 257U, 300U, 5000U, 70000U, 1048575U}) {
        const auto seed = static_cast<std::uint32_t>(size);
        publisher.send_video(1000, avc_inter_frame(seed, size));
        expect_media(player.read_message(), MSG_VIDEO, 0, avc_inter_frame(seed, size));
        publisher.send_audio(1000, aac_frame(seed, size));
        expect_media(player.read_message(), MSG_AUDIO, 0, aac_frame(seed, size));
    }
}

TEST(relay, media_keeps_the_publishers_chunk_stream_and_message_stream) {
    ServerProcess server;
    RtmpClient player = player_with_stream_id("cam1");
    RtmpClient publisher = publisher_with_stream_id("cam1");
    ASSERT_NE(publisher.media_stream_id, player.media_stream_id);
    for (const std::uint32_t csid : {4U, 63U, 64U, 319U, 320U, 65599U}) {
        publisher.send_message({.type = MSG_AUDIO,
                                .payload = aac_frame(csid, 300),
                                .csid = csid,
                                .timestamp = 1000,
                                .stream_id = publisher.media_stream_id});
        const RtmpMessage message = player.read_message();
        expect_media(message, MSG_AUDIO, 0, aac_frame(csid, 300));
        EXPECT_EQ(message.csid, csid);
        EXPECT_EQ(message.stream_id, publisher.media_stream_id);
    }
}

TEST(relay, several_players_receive_identical_bytes) {
    ServerProcess server;
    std::vector<std::unique_ptr<RtmpClient>> players;
    for (int i = 0; i < 5; ++i) {
        players.push_back(std::make_unique<RtmpClient>(playing_client("cam1")));
    }
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_video(100, avc_header());
    publisher.send_audio(100, aac_header());
    for (std::uint32_t i = 0; i < 10; ++i) {
        publisher.send_video(100 + 20 * i, avc_inter_frame(i, 1000 + 100 * i));
        publisher.send_audio(100 + 20 * i, aac_frame(i));
    }
    std::vector<Bytes> received;
    for (const auto& player : players) {
        Bytes bytes;
        for (int i = 0; i < 22; ++i) {
            const RtmpMessage message = player->read_message();
            EXPECT_EQ(message.type, i % 2 == 0 ? MSG_VIDEO : MSG_AUDIO) << i;
            bytes += message.raw;
        }
        received.push_back(bytes);
    }
    for (const Bytes& bytes : received) {
        EXPECT_TRUE(bytes == received[0]);
    }
}

TEST(relay, a_player_that_leaves_does_not_affect_the_others) {
    ServerProcess server;
    RtmpClient first = playing_client("cam1");
    RtmpClient second = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_audio(1000, aac_frame(1));
    expect_media(first.read_message(), MSG_AUDIO, 0, aac_frame(1));
    expect_media(second.read_message(), MSG_AUDIO, 0, aac_frame(1));
    first.close();
    server.wait_for_consecutive_lines(
        {"Dropping connection", "Connection for play unsubscribed from 'cam1'"});
    publisher.send_audio(1000, aac_frame(2));
    expect_media(second.read_message(), MSG_AUDIO, 0, aac_frame(2));
}

TEST(relay, players_of_any_chunk_size_join_and_leave_without_affecting_the_others) {
    ServerProcess server;
    LivePair live({.stream_name = "live", .interval = Milliseconds{10}, .message_bytes = 20000});
    std::deque<RtmpClient> visitors;
    for (int visit = 0; visit < 8; ++visit) {
        for (const std::uint32_t chunk_size : {128U, 1U, 4096U, 129U, 65536U}) {
            RtmpClient& player = visitors.emplace_back();
            (void)player.handshake();
            player.set_chunk_size(chunk_size);
            player.send_connect("ombrex-output");
            player.send_play("live");
        }
        // Some leave with unread data still being sent to them.
        while (visitors.size() > 8) {
            RtmpClient& player = visitors.front();
            if (visitors.size() % 2 == 0) {
                while (player.read_message().type != MSG_VIDEO) {
                }
                player.close();
            } else {
                player.close_with_reset();
            }
            visitors.pop_front();
        }
        live.wait_for_more(5);
    }
    visitors.clear();
    live.finish();
}

TEST(relay, players_receive_only_the_stream_they_asked_for) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient other_player = playing_client("cam2");
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_audio(1000, aac_frame(1));
    expect_media(player.read_message(), MSG_AUDIO, 0, aac_frame(1));
    EXPECT_THAT(other_player.round_trip(), IsEmpty());
}

TEST(relay, media_goes_out_in_the_chunks_that_the_player_chose) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    player.set_chunk_size(1000);
    EXPECT_EQ(player.expect_message(MSG_SET_CHUNK_SIZE).payload, be32(1000));
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_video(1000, avc_inter_frame(1, 2500));
    EXPECT_THAT(player.expect_message(MSG_VIDEO).chunk_sizes, ElementsAre(1000, 1000, 500));
}

TEST(relay, the_players_clock_starts_at_zero_with_its_first_message) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_audio(5000, aac_frame(1));
    publisher.send_video(5000, avc_inter_frame(2));
    publisher.send_audio(5040, aac_frame(3));
    publisher.send_video(5080, avc_inter_frame(4));
    expect_media(player.read_message(), MSG_AUDIO, 0, aac_frame(1));
    expect_media(player.read_message(), MSG_VIDEO, 0, avc_inter_frame(2));
    expect_media(player.read_message(), MSG_AUDIO, 40, aac_frame(3));
    expect_media(player.read_message(), MSG_VIDEO, 80, avc_inter_frame(4));
    server.wait_for_line("From publisher to connection: source timebase 5000, add 0");
    EXPECT_EQ(server.err().count_starting("From publisher to connection:"), 1U);
}

TEST(relay, every_player_has_a_clock_of_its_own) {
    ServerProcess server;
    RtmpClient early = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_audio(1000, aac_frame(1));
    publisher.send_audio(1300, aac_frame(2));
    expect_media(early.read_message(), MSG_AUDIO, 0, aac_frame(1));
    expect_media(early.read_message(), MSG_AUDIO, 300, aac_frame(2));
    RtmpClient late = playing_client("cam1");
    publisher.send_audio(1310, aac_frame(3));
    publisher.send_audio(1330, aac_frame(4));
    expect_media(early.read_message(), MSG_AUDIO, 310, aac_frame(3));
    expect_media(early.read_message(), MSG_AUDIO, 330, aac_frame(4));
    expect_media(late.read_message(), MSG_AUDIO, 0, aac_frame(3));
    expect_media(late.read_message(), MSG_AUDIO, 20, aac_frame(4));
    server.wait_for_lines({"From publisher to connection: source timebase 1000, add 0",
                           "From publisher to connection: source timebase 1310, add 0"});
}

TEST(relay, timestamps_before_the_players_first_message_become_zero) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_audio(5080, aac_frame(1));
    publisher.send_audio(5079, aac_frame(2));
    publisher.send_audio(4000, aac_frame(3));
    publisher.send_audio(5090, aac_frame(4));
    expect_media(player.read_message(), MSG_AUDIO, 0, aac_frame(1));
    expect_media(player.read_message(), MSG_AUDIO, 0, aac_frame(2));
    expect_media(player.read_message(), MSG_AUDIO, 0, aac_frame(3));
    expect_media(player.read_message(), MSG_AUDIO, 10, aac_frame(4));
}

TEST(relay, a_late_player_gets_the_saved_headers_first_with_the_timestamp_of_the_next_message) {
    ServerProcess server;
    RtmpClient publisher = publisher_with_stream_id("cam1");
    publisher.send_video(1000, avc_header());
    publisher.send_audio(1000, aac_header());
    publisher.send_video(1000, avc_key_frame(1));
    (void)publisher.round_trip();
    RtmpClient player = player_with_stream_id("cam1");
    publisher.send_audio(1100, aac_frame(2));
    publisher.send_video(1140, avc_inter_frame(3));
    publisher.send_audio(1150, aac_frame(4));
    publisher.send_video(1160, avc_inter_frame(5));

    std::vector<RtmpMessage> received;
    for (int i = 0; i < 6; ++i) {
        received.push_back(player.read_message());
        EXPECT_EQ(received.back().stream_id, publisher.media_stream_id);
        EXPECT_EQ(received.back().csid, received.back().type == MSG_AUDIO ? 4U : 6U);
    }
    expect_media(received[0], MSG_AUDIO, 0, aac_header());
    expect_media(received[1], MSG_AUDIO, 0, aac_frame(2));
    expect_media(received[2], MSG_VIDEO, 40, avc_header());
    expect_media(received[3], MSG_VIDEO, 40, avc_inter_frame(3));
    expect_media(received[4], MSG_AUDIO, 50, aac_frame(4));
    expect_media(received[5], MSG_VIDEO, 60, avc_inter_frame(5));
    server.wait_for_consecutive_lines(
        {"From publisher to connection: source timebase 1100, add 0", REPEATING_AUDIO, REPEATING_VIDEO});
    EXPECT_EQ(server.count(REPEATING_AUDIO), 1U);
    EXPECT_EQ(server.count(REPEATING_VIDEO), 1U);
}

TEST(relay, a_late_player_gets_the_newest_header_only) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_audio(1000, aac_header());
    publisher.send_audio(1000, from_hex("AF 00 11 90 56"));
    (void)publisher.round_trip();
    RtmpClient player = playing_client("cam1");
    publisher.send_audio(1010, aac_frame(1));
    expect_media(player.read_message(), MSG_AUDIO, 0, from_hex("AF 00 11 90 56"));
    expect_media(player.read_message(), MSG_AUDIO, 0, aac_frame(1));
}

TEST(relay, a_player_that_saw_the_header_pass_does_not_get_it_again) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_video(1000, avc_header());
    publisher.send_video(1000, avc_key_frame(1));
    publisher.send_video(1010, avc_inter_frame(2));
    expect_media(player.read_message(), MSG_VIDEO, 0, avc_header());
    expect_media(player.read_message(), MSG_VIDEO, 0, avc_key_frame(1));
    expect_media(player.read_message(), MSG_VIDEO, 10, avc_inter_frame(2));
    EXPECT_EQ(server.count(REPEATING_VIDEO), 0U);
}

TEST(relay, a_header_after_the_first_frame_is_relayed_and_never_repeated) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_video(1000, avc_inter_frame(1));
    publisher.send_video(1000, avc_header());
    publisher.send_video(1000, avc_inter_frame(2));
    expect_media(player.read_message(), MSG_VIDEO, 0, avc_inter_frame(1));
    expect_media(player.read_message(), MSG_VIDEO, 0, avc_header());
    expect_media(player.read_message(), MSG_VIDEO, 0, avc_inter_frame(2));
    EXPECT_EQ(server.count(REPEATING_VIDEO), 0U);
}

TEST(relay, a_saved_header_is_shown_in_the_log) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_video(0, avc_header());
    publisher.send_audio(7, aac_header());
    server.wait_for_consecutive_lines(
        {"Lock on video type 7", "RTMP: Saving a copy of the H.264 sequence header",
         "RTMP packet: chunk fmt=0 stream_id=6 timestamp=0 message_length=17 message_type_id=9 "
         "message_stream_id=0",
         "  Data (17 bytes)", "    17 00 00 00 00 01 64 00 1F FF E1 00 04 67 64 00   ......d......gd.",
         "    1F                                                .               ", "Lock on audio type 10",
         "RTMP: Saving a copy of the audio sequence header",
         "RTMP packet: chunk fmt=0 stream_id=4 timestamp=7 message_length=4 message_type_id=8 "
         "message_stream_id=0",
         "  Data (4 bytes)", "    AF 00 12 10                                       ....            "});
}

TEST(relay, sequence_headers_are_recognized_by_their_first_two_bytes) {
    struct Row {
        std::uint8_t type;
        const char* payload;
        bool header;
    };
    const std::vector<Row> rows = {
        {MSG_AUDIO, "AF 00", true},  {MSG_AUDIO, "A0 00", true},  {MSG_AUDIO, "AF 01", false},
        {MSG_AUDIO, "2F 00", false}, {MSG_AUDIO, "AF", false},    {MSG_AUDIO, "17 00", false},
        {MSG_VIDEO, "17 00", true},  {MSG_VIDEO, "27 00", true},  {MSG_VIDEO, "17 01", false},
        {MSG_VIDEO, "12 00", false}, {MSG_VIDEO, "90 31", true},  {MSG_VIDEO, "80 00", true},
        {MSG_VIDEO, "91 00", false}, {MSG_VIDEO, "10 00", false}, {MSG_VIDEO, "17", false},
    };
    ServerProcess server;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        RtmpClient publisher = publishing_client("cam" + std::to_string(i));
        const LineMark mark = server.mark();
        publisher.send_message({.type = rows[i].type, .payload = from_hex(rows[i].payload), .csid = 6});
        (void)publisher.round_trip();
        EXPECT_EQ(server.err().count_starting("RTMP: Saving a copy of the ", mark), rows[i].header ? 1U : 0U)
            << rows[i].payload;
    }
}

TEST(relay, the_first_payload_locks_the_codec) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    for (std::uint32_t i = 0; i < 3; ++i) {
        publisher.send_audio(1000, aac_frame(i));
        publisher.send_video(1000, avc_inter_frame(i));
    }
    (void)publisher.round_trip();
    EXPECT_EQ(server.count("Lock on audio type 10"), 1U);
    EXPECT_EQ(server.count("Lock on video type 7"), 1U);
    EXPECT_EQ(server.err().count_starting("Lock on "), 2U);
}

TEST(relay, another_codec_in_the_payload_ends_the_publisher) {
    ServerProcess server;
    RtmpClient audio_publisher = publishing_client("cam1");
    audio_publisher.send_audio(1000, aac_frame(1));
    audio_publisher.send_audio(1000, from_hex("2F 00"));
    audio_publisher.expect_closed();
    const LineMark mark = server.wait_for_consecutive_lines(
        {"Lock on audio type 10", "Audio format change", "A/V error", "Dropping connection"});
    RtmpClient video_publisher = publishing_client("cam2");
    video_publisher.send_video(1000, avc_inter_frame(1));
    video_publisher.send_video(1000, from_hex("22 00"));
    video_publisher.expect_closed();
    server.wait_for_consecutive_lines(
        {"Lock on video type 7", "Video format change", "A/V error", "Dropping connection"}, mark);
}

TEST(relay, the_message_that_changes_the_codec_is_not_relayed) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_audio(1000, aac_frame(1));
    expect_media(player.read_message(), MSG_AUDIO, 0, aac_frame(1));
    publisher.send_audio(1000, from_hex("2F 00"));
    publisher.expect_closed();
    EXPECT_THAT(player.round_trip(), IsEmpty());
}

TEST(relay, a_payload_of_one_byte_is_relayed_and_locks_nothing) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_audio(1000, from_hex("2F"));
    publisher.send_audio(1000, aac_frame(1));
    publisher.send_audio(1000, from_hex("2F"));
    publisher.send_audio(1000, aac_frame(2));
    for (const Bytes& payload : {from_hex("2F"), aac_frame(1), from_hex("2F"), aac_frame(2)}) {
        expect_media(player.read_message(), MSG_AUDIO, 0, payload);
    }
    EXPECT_EQ(server.count("Lock on audio type 10"), 1U);
    EXPECT_EQ(server.err().count_starting("Lock on "), 1U);
}

TEST(relay, a_codec_in_the_metadata_decides_and_the_payload_is_not_examined) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_metadata(amf_object({{"audiocodecid", amf_number(10)}, {"videocodecid", amf_number(7)}}));
    publisher.send_audio(1000, from_hex("2F 00"));
    publisher.send_video(1000, from_hex("22 00"));
    publisher.send_audio(1000, aac_frame(1));
    publisher.send_video(1000, avc_inter_frame(1));
    (void)publisher.round_trip();
    EXPECT_EQ(server.count("Lock on audio type 10 (0xa) ''"), 1U);
    EXPECT_EQ(server.count("Lock on video type 7 (0x7) ''"), 1U);
    EXPECT_EQ(server.err().count_starting("Lock on "), 2U);
}

TEST(relay, a_four_character_codec_is_named_in_the_log) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_metadata(
        amf_object({{"audiocodecid", amf_number(0x6D703461)}, {"videocodecid", amf_number(0x68766331)}}));
    publisher.send_audio(1000, aac_frame(1));
    publisher.send_video(1000, from_hex("90 68 76 63 31"));
    (void)publisher.round_trip();
    server.wait_for_line("Lock on audio type 1836069985 (0x6d703461) 'mp4a'");
    server.wait_for_line("Lock on video type 1752589105 (0x68766331) 'hvc1'");
}

TEST(relay, new_codecs_in_the_metadata_lock_again_and_keep_the_publisher) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_audio(1000, aac_frame(1));
    publisher.send_metadata(amf_object({{"audiocodecid", amf_number(2)}}));
    publisher.send_audio(1000, aac_frame(2));
    publisher.send_metadata(amf_object({{"audiocodecid", amf_number(11)}}));
    publisher.send_audio(1000, aac_frame(3));
    (void)publisher.round_trip();
    server.wait_for_lines(
        {"Lock on audio type 10", "Lock on audio type 2 (0x2) ''", "Lock on audio type 11 (0xb) ''"});
}

TEST(relay, a_player_is_dropped_when_its_publisher_locks_on_another_codec) {
    for (const bool audio : {true, false}) {
        ServerProcess server;
        RtmpClient player = playing_client("cam1");
        RtmpClient publisher = publishing_client("cam1");
        const auto send = [&](std::uint32_t seed) {
            if (audio) {
                publisher.send_audio(1000, aac_frame(seed));
            } else {
                publisher.send_video(1000, avc_inter_frame(seed));
            }
        };
        send(1);
        (void)player.expect_message(audio ? MSG_AUDIO : MSG_VIDEO);
        // The player has not received a codec yet, so the metadata alone changes nothing for it.
        publisher.send_metadata(amf_object({{audio ? "audiocodecid" : "videocodecid", amf_number(2)}}));
        (void)player.expect_message(MSG_DATA);
        send(2);
        player.expect_closed_without_answer();
        const std::string kind = audio ? "audio" : "video";
        server.wait_for_lines({"Lock on " + kind + " type 2 (0x2) ''", "Publisher changed " + kind + " codec",
                               "Relay fail", "Connection for play unsubscribed from 'cam1'",
                               "Dropping connection"});
        (void)publisher.round_trip();
    }
}

TEST(relay, media_without_payload_is_never_sent_but_starts_the_players_clock) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_audio(1000, "");
    publisher.send_video(1000, "");
    publisher.send_audio(1040, aac_frame(1));
    expect_media(player.read_message(), MSG_AUDIO, 40, aac_frame(1));
    server.wait_for_line("From publisher to connection: source timebase 1000, add 0");
}

TEST(relay, media_without_payload_still_brings_a_late_player_the_header) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_audio(1000, aac_header());
    (void)publisher.round_trip();
    RtmpClient player = playing_client("cam1");
    publisher.send_audio(1000, "");
    publisher.send_audio(1000, aac_frame(1));
    expect_media(player.read_message(), MSG_AUDIO, 0, aac_header());
    expect_media(player.read_message(), MSG_AUDIO, 0, aac_frame(1));
    EXPECT_EQ(server.count(REPEATING_AUDIO), 1U);
}

TEST(relay, a_player_that_joins_a_stream_with_metadata_gets_it_and_then_media) {
    ServerProcess server;
    const Bytes metadata = amf_ecma_array(2, {{"height", amf_number(720)}, {"width", amf_number(1280)}});
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_metadata(metadata);
    publisher.send_audio(1000, aac_header());
    (void)publisher.round_trip();
    RtmpClient player = playing_client("cam1");
    EXPECT_EQ(player.expect_message(MSG_DATA).payload, amf_string("onMetaData") + metadata);
    publisher.send_audio(1020, aac_frame(1));
    expect_media(player.read_message(), MSG_AUDIO, 0, aac_header());
    expect_media(player.read_message(), MSG_AUDIO, 0, aac_frame(1));
    // All other clients are still served.
    EXPECT_THAT(player.round_trip(), IsEmpty());
    RtmpClient another = playing_client("cam1");
    EXPECT_EQ(another.expect_message(MSG_DATA).payload, amf_string("onMetaData") + metadata);
}

TEST(relay, media_and_metadata_keep_their_order) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    const Bytes metadata = amf_object({{"title", amf_string("one")}});
    publisher.send_audio(1000, aac_frame(1));
    publisher.send_metadata(metadata);
    publisher.send_video(1000, avc_inter_frame(2));
    publisher.send_metadata(metadata);
    publisher.send_audio(1000, aac_frame(3));
    expect_media(player.read_message(), MSG_AUDIO, 0, aac_frame(1));
    EXPECT_EQ(player.read_message().payload, amf_string("onMetaData") + metadata);
    expect_media(player.read_message(), MSG_VIDEO, 0, avc_inter_frame(2));
    EXPECT_EQ(player.read_message().payload, amf_string("onMetaData") + metadata);
    expect_media(player.read_message(), MSG_AUDIO, 0, aac_frame(3));
}

TEST(relay, media_from_a_player_is_not_relayed) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient talking_player = playing_client("cam1");
    talking_player.send_audio(1000, aac_frame(1));
    EXPECT_THAT(talking_player.round_trip(), IsEmpty());
    EXPECT_THAT(player.round_trip(), IsEmpty());
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_audio(1000, aac_frame(2));
    expect_media(player.read_message(), MSG_AUDIO, 0, aac_frame(2));
    expect_media(talking_player.read_message(), MSG_AUDIO, 0, aac_frame(2));
}
