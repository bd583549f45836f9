#include "relay/av_relay.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/relay/relay_fixture.h"
#include "tests/support/assertion_line.h"

namespace {

using Messages = std::vector<QueuedMessage>;

class av_relay_test : public RelayFixture {
  protected:
    void free_slot(const RTMPConnection& conn) {
        printed_by([&] { free_connection(conn.conn_idx); });
    }
};

using av_relay_death_test = av_relay_test;

}  // namespace

TEST_F(av_relay_test, media_of_a_connection_that_does_not_publish_is_refused) {
    RTMPConnection& conn = add_publisher();
    for (const char* const mode : {"", "play", "Publish"}) {
        conn.stream_mode = mode;
        const RelayOutcome outcome = relay_audio(conn, 0, AAC_FRAME);
        EXPECT_FALSE(outcome.publisher_kept);
        EXPECT_EQ(outcome.printed,
                  std::string("A/V packet when stream mode is '") + mode + "' not allowed\n");
    }
}

TEST_F(av_relay_test, media_without_a_stream_name_is_refused) {
    RTMPConnection& conn = add_publisher("");
    const RelayOutcome outcome = relay_audio(conn, 0, AAC_FRAME);
    EXPECT_FALSE(outcome.publisher_kept);
    EXPECT_EQ(outcome.printed, "A/V packet without a stream name\n");
}

TEST_F(av_relay_test, the_codec_lock_is_announced_with_its_source) {
    struct Case {
        std::uint8_t type;
        std::uint32_t metadata_codec_id;
        std::string payload;
        std::string printed;
    };
    for (const Case& row : std::vector<Case>{
             {MESSAGE_AUDIO, 0, AAC_FRAME, "Lock on audio type 10\n"},
             {MESSAGE_VIDEO, 0, AVC_INTER_FRAME, "Lock on video type 7\n"},
             {MESSAGE_AUDIO, 10, AAC_FRAME, "Lock on audio type 10 (0xa) ''\n"},
             {MESSAGE_VIDEO, 7, AVC_INTER_FRAME, "Lock on video type 7 (0x7) ''\n"},
             {MESSAGE_AUDIO, 0x6D703461, AAC_FRAME, "Lock on audio type 1836069985 (0x6d703461) 'mp4a'\n"},
             {MESSAGE_VIDEO, 0x61766331, AVC_INTER_FRAME,
              "Lock on video type 1635148593 (0x61766331) 'avc1'\n"},
             {MESSAGE_VIDEO, 0xFFFFFFFE, "", "Lock on video type -2 (0xfffffffe) '\xFF\xFF\xFF\xFE'\n"},
             {MESSAGE_AUDIO, 0, "", ""},
             {MESSAGE_AUDIO, 0, "\xAF", ""},
             {MESSAGE_VIDEO, 0, "\x17", ""},
         }) {
        RTMPConnection& publisher = add_publisher();
        publisher.stream_format.audio_codec_id = row.type == MESSAGE_AUDIO ? row.metadata_codec_id : 0;
        publisher.stream_format.video_codec_id = row.type == MESSAGE_VIDEO ? row.metadata_codec_id : 0;
        const RelayOutcome first = relay(publisher, make_packet(row.type, 0, row.payload));
        EXPECT_TRUE(first.publisher_kept) << row.printed;
        EXPECT_EQ(first.printed, row.printed);
        const RelayOutcome second = relay(publisher, make_packet(row.type, 1, row.payload));
        EXPECT_TRUE(second.publisher_kept) << row.printed;
        EXPECT_EQ(second.printed, "") << row.printed;
        free_slot(publisher);
    }
}

TEST_F(av_relay_test, another_codec_than_the_first_ends_the_publisher) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    relay_audio(publisher, 0, AAC_FRAME);
    relay_video(publisher, 0, AVC_INTER_FRAME);
    take_queued(player);

    const RelayOutcome audio = relay_audio(publisher, 1, MP3_FRAME);
    EXPECT_FALSE(audio.publisher_kept);
    EXPECT_EQ(audio.printed, "Audio format change\n");
    const RelayOutcome video = relay_video(publisher, 1, H263_FRAME);
    EXPECT_FALSE(video.publisher_kept);
    EXPECT_EQ(video.printed, "Video format change\n");
    EXPECT_TRUE(player.connection_out.empty());
}

TEST_F(av_relay_test, a_codec_id_in_the_metadata_outweighs_the_payload_and_may_change) {
    RTMPConnection& publisher = add_publisher();
    relay_audio(publisher, 0, AAC_FRAME);
    publisher.stream_format.audio_codec_id = 2;
    const RelayOutcome outcome = relay_audio(publisher, 1, AAC_FRAME);
    EXPECT_TRUE(outcome.publisher_kept);
    EXPECT_EQ(outcome.printed, "Lock on audio type 2 (0x2) ''\n");
    EXPECT_TRUE(relay_audio(publisher, 2, MP3_FRAME).publisher_kept);
}

TEST_F(av_relay_test, sequence_headers_are_saved_and_dumped) {
    RTMPConnection& publisher = add_publisher();
    EXPECT_EQ(relay(publisher, make_packet(MESSAGE_AUDIO, 7, AAC_HEADER, 4, 1)).printed,
              "Lock on audio type 10\n"
              "RTMP: Saving a copy of the audio sequence header\n"
              "RTMP packet: chunk fmt=0 stream_id=4 timestamp=7 message_length=4 message_type_id=8 "
              "message_stream_id=1\n"
              "  Data (4 bytes)\n"
              "    AF 00 12 10                                       ....            \n");
    EXPECT_EQ(relay(publisher, make_packet(MESSAGE_VIDEO, 8, AVC_HEADER, 6, 1)).printed,
              "Lock on video type 7\n"
              "RTMP: Saving a copy of the H.264 sequence header\n"
              "RTMP packet: chunk fmt=0 stream_id=6 timestamp=8 message_length=4 message_type_id=9 "
              "message_stream_id=1\n"
              "  Data (4 bytes)\n"
              "    17 00 01 64                                       ...d            \n");
    EXPECT_EQ(payload_of(publisher.audio.seq_header), AAC_HEADER);
    EXPECT_EQ(publisher.audio.seq_header.chunk.timestamp, 7U);
    EXPECT_EQ(publisher.audio.seq_header.chunk.stream_id, 4U);
    EXPECT_EQ(payload_of(publisher.video.seq_header), AVC_HEADER);
    EXPECT_EQ(publisher.video.seq_header.chunk.stream_id, 6U);
}

TEST_F(av_relay_test, a_newer_sequence_header_replaces_the_saved_one) {
    RTMPConnection& publisher = add_publisher();
    relay_audio(publisher, 0, AAC_HEADER);
    const std::string newer{"\xAF\x00\x11\x90\x56", 5};
    relay_audio(publisher, 1, newer);
    EXPECT_EQ(payload_of(publisher.audio.seq_header), newer);
    EXPECT_EQ(publisher.audio.seq_header.chunk.timestamp, 1U);
}

TEST_F(av_relay_test, frames_are_not_saved) {
    RTMPConnection& publisher = add_publisher();
    relay_audio(publisher, 0, AAC_FRAME);
    relay_video(publisher, 0, AVC_INTER_FRAME);
    relay_video(publisher, 0, AAC_HEADER.substr(0, 1));
    EXPECT_EQ(publisher.audio.seq_header.chunk.message.data_length, 0U);
    EXPECT_EQ(publisher.video.seq_header.chunk.message.data_length, 0U);
}

TEST_F(av_relay_test, a_rival_of_the_publisher_is_checked_and_saved_but_not_relayed) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& rival = add_publisher();
    RTMPConnection& player = add_player();
    fake_clock_us += 7;
    const RelayOutcome outcome = relay_audio(rival, 0, AAC_HEADER);
    EXPECT_TRUE(outcome.publisher_kept);
    EXPECT_NE(outcome.printed.find("RTMP: Saving a copy of the audio sequence header\n"), std::string::npos);
    EXPECT_EQ(payload_of(rival.audio.seq_header), AAC_HEADER);
    EXPECT_TRUE(player.connection_out.empty());
    EXPECT_EQ(find_or_insert_stream("cam1").publisher, publisher.conn_idx);
    EXPECT_EQ(find_or_insert_stream("cam1").last_activity_us, fake_clock_us);
    EXPECT_FALSE(relay_audio(rival, 1, MP3_FRAME).publisher_kept);
}

TEST_F(av_relay_test, media_without_players_keeps_the_record_alive) {
    RTMPConnection& publisher = add_publisher();
    fake_clock_us += 4999999;
    EXPECT_TRUE(relay_audio(publisher, 0, AAC_FRAME).publisher_kept);
    EXPECT_EQ(find_or_insert_stream("cam1").last_activity_us, fake_clock_us);
}

TEST_F(av_relay_test, every_player_of_the_stream_gets_the_payload_under_the_publishers_header) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& first = add_player();
    RTMPConnection& second = add_player();
    RTMPConnection& stranger = add_player("cam2");
    second.stream_id = 99;
    RTMP_Packet pkt = make_packet(MESSAGE_VIDEO, 1000, AVC_INTER_FRAME, 64, 4711);
    pkt.chunk.fmt = 1;
    printed_by([&] { EXPECT_TRUE(relay_published_packet(publisher, pkt, find_or_insert_stream("cam1"))); });

    ASSERT_EQ(first.connection_out.size(), 1U);
    ASSERT_EQ(second.connection_out.size(), 1U);
    EXPECT_TRUE(stranger.connection_out.empty());
    const unsigned char* const shared_data = first.connection_out.front().shared.laid_out().data;
    EXPECT_NE(shared_data, pkt.chunk.message.data);
    EXPECT_EQ(shared_data, second.connection_out.front().shared.laid_out().data);
    EXPECT_EQ(first.connection_out.front().chunk.fmt, 1U);
    EXPECT_EQ(payload_of(pkt), AVC_INTER_FRAME);
    const Messages expected{{MESSAGE_VIDEO, 0, AVC_INTER_FRAME, 64, 4711}};
    EXPECT_EQ(take_queued(first), expected);
    EXPECT_EQ(take_queued(second), expected);
}

TEST_F(av_relay_test, a_hundred_thousand_messages_wait_for_one_player_while_another_takes_its_own) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& stuck = add_player();
    RTMPConnection& live = add_player();
    constexpr std::uint32_t MESSAGES = 100000;
    testing::internal::CaptureStderr();
    for (std::uint32_t i = 0; i < MESSAGES; ++i) {
        const std::string payload = AVC_INTER_FRAME + std::to_string(i);
        const RTMP_Packet pkt = make_packet(MESSAGE_VIDEO, i, payload);
        ASSERT_TRUE(relay_published_packet(publisher, pkt, find_or_insert_stream("cam1")));
        ASSERT_EQ(take_queued(live), (Messages{{MESSAGE_VIDEO, i, payload}}));
    }
    testing::internal::GetCapturedStderr();
    ASSERT_EQ(stuck.connection_out.size(), MESSAGES);
    for (std::uint32_t i = 0; i < MESSAGES; i += 997) {
        ASSERT_EQ(payload_of(stuck.connection_out[i]), AVC_INTER_FRAME + std::to_string(i));
    }
}

TEST_F(av_relay_test, a_message_is_laid_out_for_the_chunk_size_of_most_players) {
    RTMPConnection& publisher = add_publisher();
    struct Row {
        std::vector<std::uint32_t> chunk_sizes;
        std::uint32_t laid_out_for;
    };
    std::vector<RTMPConnection*> players;
    for (const Row& row : std::vector<Row>{{{128}, 128},
                                           {{4096}, 4096},
                                           {{128, 4096, 4096}, 4096},
                                           {{4096, 128, 4096, 128, 128}, 128},
                                           {{128, 4096, 128, 4096, 4096, 1000}, 4096},
                                           {{128, 128, 4096, 65536, 4096, 128, 1000}, 128},
                                           {{1, 1, 1}, 128},
                                           {{1, 127, 1, 1}, 128}}) {
        for (const std::uint32_t chunk_size : row.chunk_sizes) {
            players.push_back(&add_player());
            players.back()->conn_g_server.chunk_size = chunk_size;
        }
        relay_video(publisher, 1000, std::string(10000, '\x27'));
        EXPECT_TRUE(players.front()->connection_out.back().shared.is_laid_out_for(row.laid_out_for))
            << row.laid_out_for;
        testing::internal::CaptureStderr();
        for (RTMPConnection* const player : players) {
            free_connection(player->conn_idx);
        }
        testing::internal::GetCapturedStderr();
        players.clear();
    }
}

TEST_F(av_relay_test, each_player_has_a_clock_of_its_own) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& early = add_player();
    EXPECT_EQ(relay_audio(publisher, 5000, AAC_FRAME).printed,
              "Lock on audio type 10\nFrom publisher to connection: source timebase 5000, add 0\n");
    RTMPConnection& late = add_player();
    EXPECT_EQ(relay_audio(publisher, 5040, AAC_FRAME).printed,
              "From publisher to connection: source timebase 5040, add 0\n");
    relay_audio(publisher, 5020, AAC_FRAME);
    EXPECT_EQ(take_queued(early), (Messages{{MESSAGE_AUDIO, 0, AAC_FRAME},
                                            {MESSAGE_AUDIO, 40, AAC_FRAME},
                                            {MESSAGE_AUDIO, 20, AAC_FRAME}}));
    EXPECT_EQ(take_queued(late), (Messages{{MESSAGE_AUDIO, 0, AAC_FRAME}, {MESSAGE_AUDIO, 0, AAC_FRAME}}));
    EXPECT_EQ(early.timebase.last_sent_timestamp, 40U);
}

TEST_F(av_relay_test, a_player_whose_clock_runs_continues_from_it) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    player.av_start_us = fake_clock_us - 1200000;
    for (const std::uint32_t timestamp : {5000U, 5040U, 5080U, 4999U}) {
        relay_audio(publisher, timestamp, AAC_FRAME);
    }
    EXPECT_EQ(take_queued(player), (Messages{{MESSAGE_AUDIO, 1200, AAC_FRAME},
                                             {MESSAGE_AUDIO, 1240, AAC_FRAME},
                                             {MESSAGE_AUDIO, 1280, AAC_FRAME},
                                             {MESSAGE_AUDIO, 1200, AAC_FRAME}}));
}

TEST_F(av_relay_test, timestamps_beyond_24_bits_are_relayed_and_a_wrap_stops_the_players_clock) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    for (const std::uint32_t timestamp : {1U, 0xFFFFFFU, 0x1000000U, 0x1000001U, 0xFFFFFFFFU, 0U, 5U}) {
        relay_audio(publisher, timestamp, AAC_FRAME);
    }
    std::vector<std::uint32_t> timestamps;
    for (const QueuedMessage& message : take_queued(player)) {
        timestamps.push_back(message.timestamp);
    }
    EXPECT_EQ(timestamps, (std::vector<std::uint32_t>{0, 0xFFFFFE, 0xFFFFFF, 0x1000000, 0xFFFFFFFE, 0, 4}));
}

TEST_F(av_relay_test, an_empty_message_is_queued_and_starts_the_players_clock) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    EXPECT_EQ(relay_audio(publisher, 1000, "").printed,
              "From publisher to connection: source timebase 1000, add 0\n");
    EXPECT_TRUE(player.timebase.timebase_set);
    EXPECT_TRUE(player.audio.header_delivered);
    EXPECT_EQ(take_queued(player), (Messages{{MESSAGE_AUDIO, 0, ""}}));
}

TEST_F(av_relay_test, a_message_that_is_neither_audio_nor_video_is_relayed_without_a_timebase) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    const RelayOutcome outcome = relay(publisher, make_packet(22, 1000, "\xAF\x01"));
    EXPECT_TRUE(outcome.publisher_kept);
    EXPECT_EQ(outcome.printed, "");
    EXPECT_FALSE(player.timebase.timebase_set);
    EXPECT_EQ(publisher.audio.lock_type, NO_CODEC_LOCK);
    EXPECT_EQ(take_queued(player), (Messages{{22, 1000, "\xAF\x01"}}));
}

TEST_F(av_relay_test, a_player_locked_on_another_codec_is_dropped_and_the_others_are_served) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& other_audio = add_player();
    other_audio.audio.lock_type = 2;
    RTMPConnection& other_video = add_player();
    other_video.video.lock_type = 2;
    RTMPConnection& player = add_player();
    EXPECT_EQ(relay_audio(publisher, 1000, AAC_FRAME).printed,
              "Lock on audio type 10\n"
              "Publisher changed audio codec\n"
              "Relay fail\n"
              "From publisher to connection: source timebase 1000, add 0\n"
              "From publisher to connection: source timebase 1000, add 0\n");
    EXPECT_EQ(relay_video(publisher, 1000, AVC_INTER_FRAME).printed,
              "Lock on video type 7\n"
              "From publisher to connection: source timebase 1000, add 0\n"
              "Publisher changed video codec\n"
              "Relay fail\n");
    EXPECT_TRUE(other_audio.close_requested);
    EXPECT_TRUE(other_video.close_requested);
    EXPECT_FALSE(player.close_requested);
    EXPECT_EQ(player.connection_out.size(), 2U);
    EXPECT_EQ(player.audio.lock_type, 10);
    EXPECT_EQ(player.video.lock_type, 7);
    EXPECT_EQ(other_audio.audio.lock_type, 2);
}

TEST_F(av_relay_test, a_listed_player_that_has_left_is_reported_and_removed_from_the_list) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    StreamRecord& record = find_or_insert_stream("cam1");
    record.players.insert(record.players.begin(), MAX_CONNECTIONS - 1);
    record.players.push_back(MAX_CONNECTIONS - 2);
    EXPECT_EQ(relay_audio(publisher, 1000, AAC_FRAME).printed,
              "Lock on audio type 10\n"
              "BUG: Dead subscriber\n"
              "From publisher to connection: source timebase 1000, add 0\n"
              "BUG: Dead subscriber\n"
              "Connection for play unsubscribed from 'cam1'\n"
              "Connection for play unsubscribed from 'cam1'\n");
    EXPECT_EQ(record.players, std::vector<std::size_t>{player.conn_idx});
    EXPECT_EQ(player.connection_out.size(), 1U);
}

TEST_F(av_relay_test, a_player_whose_socket_is_closed_gets_nothing) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    const int fd = std::exchange(player.fd, -1);
    const RelayOutcome outcome = relay_audio(publisher, 1000, AAC_FRAME);
    player.fd = fd;
    EXPECT_TRUE(outcome.publisher_kept);
    EXPECT_EQ(outcome.printed, "Lock on audio type 10\nRelay fail\n");
    EXPECT_TRUE(player.connection_out.empty());
    EXPECT_FALSE(player.timebase.timebase_set);
    EXPECT_EQ(player.audio.lock_type, NO_CODEC_LOCK);
}

TEST_F(av_relay_test, a_payload_that_is_too_large_to_copy_is_not_sent_and_keeps_the_publisher) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    RTMP_Packet pkt = make_packet(MESSAGE_AUDIO, 1000, "");
    pkt.chunk.message.data = new unsigned char[MAX_PAYLOAD_BYTES + 1]{0xAF, 0x01};
    pkt.chunk.message.data_length = MAX_PAYLOAD_BYTES + 1;
    const RelayOutcome outcome = relay(publisher, std::move(pkt));
    EXPECT_TRUE(outcome.publisher_kept);
    EXPECT_EQ(outcome.printed,
              "Lock on audio type 10\n"
              "From publisher to connection: source timebase 1000, add 0\n"
              "Relay fail\n");
    EXPECT_TRUE(player.connection_out.empty());
}

TEST_F(av_relay_test, the_largest_payload_is_relayed) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    std::string payload(MAX_PAYLOAD_BYTES, '\x5A');
    payload.replace(0, AAC_FRAME.size(), AAC_FRAME);
    relay_audio(publisher, 1000, payload);
    EXPECT_EQ(take_queued(player), (Messages{{MESSAGE_AUDIO, 0, payload}}));
}

TEST_F(av_relay_death_test, a_connection_that_is_relayed_to_itself_ends_the_process) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    RTMPConnection& publisher = add_publisher();
    RTMP_Packet pkt = make_packet(MESSAGE_AUDIO, 0, AAC_FRAME);
    EXPECT_EXIT((void)publisher.relay_from_publisher(RelayedMessage(pkt), publisher),
                testing::KilledBySignal(SIGABRT),
                assertion_line("relay_from_publisher", "&publisher != this"));
}

TEST_F(av_relay_death_test, a_publisher_in_the_players_own_slot_ends_the_process) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    RTMPConnection& player = add_player();
    RTMPConnection impostor(-1, player.conn_idx, "");
    RTMP_Packet pkt = make_packet(MESSAGE_AUDIO, 0, AAC_FRAME);
    EXPECT_EXIT((void)player.relay_from_publisher(RelayedMessage(pkt), impostor),
                testing::KilledBySignal(SIGABRT),
                assertion_line("relay_from_publisher", "publisher.conn_idx != conn_idx"));
}

TEST_F(av_relay_death_test, a_player_outside_the_table_ends_the_process) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    RTMPConnection& publisher = add_publisher();
    const auto relay_to_slot = [&](std::size_t slot) {
        find_or_insert_stream("cam1").players = {slot};
        RTMP_Packet pkt = make_packet(MESSAGE_AUDIO, 0, AAC_FRAME);
        (void)relay_published_packet(publisher, pkt, find_or_insert_stream("cam1"));
    };
    EXPECT_EXIT(relay_to_slot(MAX_CONNECTIONS), testing::KilledBySignal(SIGABRT),
                assertion_line("get_connection", "i < MAX_CONNECTIONS"));
    EXPECT_EXIT(relay_to_slot(NO_CONNECTION), testing::KilledBySignal(SIGABRT),
                assertion_line("get_connection", "i < MAX_CONNECTIONS"));
}
