#include "app/publisher_media.h"

#include <cstdio>
#include <string>
#include <vector>

#include "core/limits.h"
#include "core/switches.h"
#include "tests/app/app_fixture.h"
#include "tests/support/assertion_line.h"

namespace {

using Messages = std::vector<QueuedMessage>;

constexpr std::uint64_t STALL_US = 2500000;
constexpr std::uint64_t FIRST_MEDIA_GRACE_US = 3500000;
constexpr std::uint32_t HIGHEST = 0xFFFFFFFF;

constexpr const char* TAKEOVER =
    "Existing RTMP publisher for stream stalled, taking over as publisher\n"
    "Notifing subscribers of time reset\n";

class publisher_media_test : public AppFixture {
  protected:
    ~publisher_media_test() override { opt_dbg_pkt = false; }
};

using publisher_media_death_test = publisher_media_test;

}  // namespace

TEST(pacing, allows_the_first_timestamp_plus_the_milliseconds_that_have_passed) {
    constexpr std::uint64_t START_US = 7000000;
    struct Case {
        std::uint32_t av_start_ts;
        std::uint64_t elapsed_us;
        std::uint32_t limit;
    };
    for (const Case& row : std::vector<Case>{{0, 0, 0},
                                             {500, 0, 500},
                                             {500, 999, 500},
                                             {500, 1000, 501},
                                             {500, 10000000, 10500},
                                             {0xFFFFFE, 1000, 0xFFFFFF},
                                             {0xFFFFFF, 1000, 0x1000000},
                                             {HIGHEST, 999, HIGHEST},
                                             {HIGHEST, 1000, 0},
                                             {HIGHEST, 6000, 5},
                                             {1, 4294967294000, HIGHEST},
                                             {1, 4294967295000, 0},
                                             {1, 4294967296000, 1}}) {
        EXPECT_EQ(pacing_limit(START_US, row.av_start_ts, START_US + row.elapsed_us), row.limit)
            << row.av_start_ts << " after " << row.elapsed_us;
    }
}

TEST(pacing, does_not_move_before_its_start) {
    EXPECT_EQ(pacing_limit(7000000, 500, 6999999), 500U);
}

TEST_F(publisher_media_test, media_of_a_connection_that_does_not_publish_is_ignored) {
    RTMPConnection& player = add_player();
    RTMPConnection& neither = add_client();
    for (RTMPConnection* const conn : {&player, &neither}) {
        conn->stream_id_unconfirmed = true;
        EXPECT_EQ(audio(*conn, 1), "");
        EXPECT_TRUE(conn->connection_in.empty());
        EXPECT_EQ(conn->av_start_us, 0U);
        EXPECT_EQ(conn->av_start_ts, 0U);
        EXPECT_EQ(conn->stall_deadline_us, 0U);
        EXPECT_TRUE(conn->stream_id_unconfirmed);
        EXPECT_FALSE(conn->close_requested);
    }
}

TEST_F(publisher_media_test, is_relayed_no_faster_than_real_time) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    for (const std::uint32_t timestamp : {5000U, 5000U, 4000U, 5020U, 5040U, 15000U}) {
        receive_audio(publisher, timestamp);
    }
    idle(publisher);
    EXPECT_EQ(take_queued(player).size(), 3U);
    fake_clock_us += 19999;
    idle(publisher);
    EXPECT_TRUE(player.connection_out.empty());
    fake_clock_us += 1;
    idle(publisher);
    EXPECT_EQ(take_queued(player), (Messages{{MESSAGE_AUDIO, 20, AAC_FRAME}}));
    fake_clock_us += 9979999;
    idle(publisher);
    EXPECT_EQ(take_queued(player), (Messages{{MESSAGE_AUDIO, 40, AAC_FRAME}}));
    EXPECT_EQ(publisher.connection_in.size(), 1U);
    fake_clock_us += 1;
    idle(publisher);
    EXPECT_EQ(take_queued(player), (Messages{{MESSAGE_AUDIO, 10000, AAC_FRAME}}));
    EXPECT_TRUE(publisher.connection_in.empty());
}

TEST_F(publisher_media_test,
       is_paced_from_the_first_timestamp_that_is_not_0_and_the_time_of_the_first_message) {
    RTMPConnection& publisher = add_publisher();
    audio(publisher, 0);
    const std::uint64_t start_us = fake_clock_us;
    EXPECT_EQ(publisher.av_start_us, start_us);
    EXPECT_EQ(publisher.av_start_ts, 0U);
    fake_clock_us += 10000;
    receive_audio(publisher, 40);
    receive_audio(publisher, 51);
    idle(publisher);
    EXPECT_EQ(publisher.av_start_us, start_us);
    EXPECT_EQ(publisher.av_start_ts, 40U);
    EXPECT_EQ(publisher.connection_in.size(), 1U);
    fake_clock_us += 1000;
    idle(publisher);
    EXPECT_TRUE(publisher.connection_in.empty());
}

TEST_F(publisher_media_test, is_paced_alike_when_timestamps_exceed_24_bits) {
    RTMPConnection& publisher = add_publisher();
    receive_audio(publisher, 0xFFFFFF);
    receive_audio(publisher, 0x1000000);
    idle(publisher);
    EXPECT_EQ(publisher.connection_in.size(), 1U);
    fake_clock_us += 1000;
    idle(publisher);
    EXPECT_TRUE(publisher.connection_in.empty());
}

TEST_F(publisher_media_test, that_is_late_when_the_clock_wraps_waits_until_it_wraps_again) {
    RTMPConnection& publisher = add_publisher();
    receive_audio(publisher, HIGHEST);
    receive_audio(publisher, 0);
    idle(publisher);
    EXPECT_TRUE(publisher.connection_in.empty());
    fake_clock_us += 1000;
    receive_audio(publisher, 0);
    receive_audio(publisher, HIGHEST);
    idle(publisher);
    EXPECT_EQ(publisher.connection_in.size(), 1U);
    fake_clock_us += 4294967294000;
    idle(publisher);
    EXPECT_EQ(publisher.connection_in.size(), 1U);
    fake_clock_us += 1000;
    idle(publisher);
    EXPECT_TRUE(publisher.connection_in.empty());
}

TEST_F(publisher_media_test, moves_the_stall_deadline_each_time_it_is_checked) {
    RTMPConnection& publisher = add_publisher();
    EXPECT_EQ(publisher.stall_deadline_us, fake_clock_us + FIRST_MEDIA_GRACE_US);
    receive_audio(publisher, 1);
    receive_audio(publisher, 3600001);
    for (int pass = 0; pass < 3; ++pass) {
        idle(publisher);
        EXPECT_EQ(publisher.stall_deadline_us, fake_clock_us + STALL_US);
        EXPECT_EQ(publisher.connection_in.size(), 1U);
        fake_clock_us += STALL_US;
    }
}

TEST_F(publisher_media_test, without_players_is_announced_on_every_pass_once_it_is_held_for_five_seconds) {
    RTMPConnection& publisher = add_publisher();
    receive_audio(publisher, 1);
    receive_audio(publisher, 3600001);
    const auto pass = [&] { return printed_by([] { idle_all_connections(); }); };
    EXPECT_EQ(pass(), "Lock on audio type 10\n");
    fake_clock_us += 4999999;
    EXPECT_EQ(pass(), "");
    fake_clock_us += 1;
    EXPECT_EQ(pass(), "Disposing old stream 'cam1'\n");
    EXPECT_EQ(pass(), "Notifing subscribers of time reset\nDisposing old stream 'cam1'\n");
    EXPECT_EQ(pass(), "Notifing subscribers of time reset\nDisposing old stream 'cam1'\n");
}

TEST_F(publisher_media_test, does_not_announce_a_publisher_again_within_five_seconds) {
    RTMPConnection& publisher = add_publisher();
    EXPECT_EQ(audio(publisher, 1), "Lock on audio type 10\n");
    fake_clock_us += 4999999;
    EXPECT_EQ(printed_by([] { idle_all_connections(); }), "");
    EXPECT_EQ(audio(publisher, 2), "");
}

TEST_F(publisher_media_test, takes_the_place_of_a_publisher_at_its_deadline_and_not_a_microsecond_before) {
    for (const bool first_has_sent_media : {false, true}) {
        RTMPConnection& first = add_publisher();
        RTMPConnection& player = add_player();
        if (first_has_sent_media) {
            fake_clock_us += 1000000;
            audio(first, 1);
            take_queued(player);
        }
        const std::uint64_t deadline_us =
            fake_clock_us + (first_has_sent_media ? STALL_US : FIRST_MEDIA_GRACE_US);
        EXPECT_EQ(first.stall_deadline_us, deadline_us);
        RTMPConnection& second = add_publisher();

        fake_clock_us = deadline_us - 1;
        EXPECT_EQ(audio(second, 1), "Lock on audio type 10\n");
        EXPECT_EQ(record().publisher, first.conn_idx);
        EXPECT_TRUE(player.connection_out.empty());
        EXPECT_FALSE(first.close_requested);

        fake_clock_us = deadline_us;
        EXPECT_TRUE(audio(second, 1).starts_with(TAKEOVER));
        EXPECT_EQ(record().publisher, second.conn_idx);
        EXPECT_TRUE(first.close_requested);
        EXPECT_EQ(first.stall_deadline_us, 0U);
        EXPECT_EQ(player.close_requested, first_has_sent_media);
        EXPECT_EQ(take_queued(player).size(), 1U);

        EXPECT_EQ(printed_by([&] { idle_connection(first.conn_idx); }), "Dropping connection\n");
        EXPECT_EQ(record().publisher, second.conn_idx);
        printed_by([] { free_all_connections(); });
    }
}

TEST_F(publisher_media_test, that_is_held_keeps_its_publisher_in_place) {
    RTMPConnection& first = add_publisher();
    receive_audio(first, 1);
    receive_audio(first, 3600001);
    RTMPConnection& second = add_publisher();
    for (int pass = 0; pass < 4; ++pass) {
        idle(first);
        fake_clock_us += STALL_US - 1;
        EXPECT_EQ(audio(second, 1), pass == 0 ? "Lock on audio type 10\n" : "");
        EXPECT_EQ(record().publisher, first.conn_idx);
    }
    EXPECT_FALSE(first.close_requested);
}

TEST_F(publisher_media_test, takes_the_place_of_a_publisher_that_has_closed) {
    RTMPConnection& first = add_publisher();
    RTMPConnection& second = add_publisher();
    audio(second, 1);
    first.close_requested = true;
    EXPECT_EQ(printed_by([&] { idle_connection(first.conn_idx); }), "Dropping connection\n");
    EXPECT_EQ(audio(second, 1), "Notifing subscribers of time reset\n");
    EXPECT_EQ(record().publisher, second.conn_idx);
}

TEST_F(publisher_media_test, that_takes_over_with_another_codec_drops_the_players_in_this_order) {
    RTMPConnection& first = add_publisher();
    RTMPConnection& player = add_player();
    data_message(first, set_metadata(amf_object({{"audiocodecid", amf_number(10)}})));
    EXPECT_EQ(audio(first, 1),
              "Lock on audio type 10 (0xa) ''\nFrom publisher to connection: source timebase 1, add 0\n");
    EXPECT_EQ(player.audio.lock_type, 10);
    RTMPConnection& second = add_publisher();
    second.stream_format.audio_codec_id = 2;
    take_queued(player);
    fake_clock_us += STALL_US;
    EXPECT_EQ(audio(second, 1, MP3_FRAME),
              "Existing RTMP publisher for stream stalled, taking over as publisher\n"
              "Notifing subscribers of time reset\n"
              "Dropping subscriber because format change\n"
              "Lock on audio type 2 (0x2) ''\n"
              "Publisher changed audio codec\n"
              "Relay fail\n");
    EXPECT_TRUE(player.close_requested);
    EXPECT_TRUE(player.connection_out.empty());
    EXPECT_FALSE(second.close_requested);
}

TEST_F(publisher_media_test, does_not_take_the_place_of_a_slot_that_is_empty_or_does_not_publish) {
    RTMPConnection& conn = add_publisher();
    record().publisher = MAX_CONNECTIONS - 1;
    EXPECT_EQ(audio(conn, 1), "Lock on audio type 10\n");
    EXPECT_EQ(record().publisher, MAX_CONNECTIONS - 1);

    RTMPConnection& idle_client = add_client();
    record().publisher = idle_client.conn_idx;
    EXPECT_EQ(audio(conn, 1), "");
    EXPECT_EQ(record().publisher, idle_client.conn_idx);
    EXPECT_FALSE(idle_client.close_requested);
}

TEST_F(publisher_media_test, on_another_message_stream_replaces_each_assigned_stream_id_once) {
    RTMPConnection& publisher = add_publisher();
    publisher.stream_id = 4711;
    publisher.stream_id_unconfirmed = true;
    EXPECT_EQ(audio(publisher, 1, AAC_FRAME, 4711), "Lock on audio type 10\n");
    EXPECT_TRUE(publisher.stream_id_unconfirmed);
    EXPECT_EQ(audio(publisher, 1, AAC_FRAME, 1),
              "Hrmph, RTMP publisher ignored stream ID in reply. Using 1\n");
    EXPECT_EQ(publisher.stream_id, 1U);
    EXPECT_FALSE(publisher.stream_id_unconfirmed);
    EXPECT_EQ(audio(publisher, 1, AAC_FRAME, 2), "");
    EXPECT_EQ(publisher.stream_id, 1U);

    publisher.stream_id = 4712;
    publisher.stream_id_unconfirmed = true;
    EXPECT_EQ(audio(publisher, 1, AAC_FRAME, HIGHEST),
              "Hrmph, RTMP publisher ignored stream ID in reply. Using 4294967295\n");
    EXPECT_EQ(publisher.stream_id, HIGHEST);
}

TEST_F(publisher_media_test, on_any_message_stream_is_accepted_when_none_was_assigned) {
    RTMPConnection& publisher = add_publisher();
    EXPECT_EQ(audio(publisher, 1, AAC_FRAME, 5), "Lock on audio type 10\n");
    EXPECT_EQ(publisher.stream_id, 0U);
}

TEST_F(publisher_media_test, is_printed_on_standard_output_on_every_pass_when_packets_are_debugged) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& neither = add_client();
    opt_dbg_pkt = true;
    const auto shown_by_idle = [&](RTMPConnection& conn) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(idle(conn).find("A/V"), std::string::npos);
        return testing::internal::GetCapturedStdout();
    };
    const auto line_for = [](const RTMP_Packet& pkt) {
        char line[80];
        std::snprintf(line, sizeof line, "A/V %lu %p\n", static_cast<unsigned long>(pkt.chunk.timestamp),
                      static_cast<const void*>(&pkt));
        return std::string(line);
    };
    receive_audio(publisher, 1);
    receive_audio(publisher, HIGHEST);
    const std::string both = line_for(publisher.connection_in[0]) + line_for(publisher.connection_in[1]);
    EXPECT_EQ(shown_by_idle(publisher), both);
    const std::string held = line_for(publisher.connection_in.front());
    EXPECT_TRUE(both.ends_with(held));
    EXPECT_EQ(shown_by_idle(publisher), held);

    receive_audio(neither, 7);
    const std::string ignored = line_for(neither.connection_in.front());
    EXPECT_EQ(shown_by_idle(neither), ignored);
    opt_dbg_pkt = false;
    EXPECT_EQ(shown_by_idle(publisher), "");
}

TEST_F(publisher_media_death_test, a_publisher_outside_the_table_ends_the_process) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    RTMPConnection& conn = add_publisher();
    record().publisher = MAX_CONNECTIONS;
    receive_audio(conn, 1);
    EXPECT_EXIT(conn.idle(), testing::KilledBySignal(SIGABRT),
                assertion_line("get_connection", "i < MAX_CONNECTIONS"));
}
