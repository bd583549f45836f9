#include "relay/time_reset.h"

#include <string>
#include <vector>

#include "tests/relay/relay_fixture.h"
#include "tests/support/assertion_line.h"

namespace {

class time_reset_test : public RelayFixture {
  protected:
    std::string reset(const std::string& name = "cam1") {
        return printed_by([&] { notify_time_reset(find_or_insert_stream(name)); });
    }
};

using time_reset_death_test = time_reset_test;

}  // namespace

TEST_F(time_reset_test, is_announced_even_without_players) {
    EXPECT_EQ(reset(), "Notifing subscribers of time reset\n");
}

TEST_F(time_reset_test, clears_the_timebase_of_a_player_that_has_had_no_media_and_keeps_it) {
    RTMPConnection& player = add_player();
    player.timebase.timebase_set = true;
    player.timebase.source_timebase = 5000;
    player.timebase.last_sent_timestamp = 1280;
    player.av_start_ts = 42;
    player.av_start_us = 43;
    EXPECT_EQ(reset(), "Notifing subscribers of time reset\n");
    EXPECT_FALSE(player.timebase.timebase_set);
    EXPECT_EQ(player.timebase.source_timebase, 0U);
    EXPECT_EQ(player.timebase.timestamp_offset, 6530U);
    EXPECT_EQ(player.av_start_ts, 0U);
    EXPECT_EQ(player.av_start_us, 43U);
    EXPECT_FALSE(player.close_requested);
}

TEST_F(time_reset_test, drops_every_player_that_has_had_media_of_either_kind) {
    RTMPConnection& with_audio = add_player();
    with_audio.audio.header_delivered = true;
    RTMPConnection& with_nothing = add_player();
    RTMPConnection& with_video = add_player();
    with_video.video.header_delivered = true;
    EXPECT_EQ(reset(),
              "Notifing subscribers of time reset\n"
              "Dropping subscriber because format change\n"
              "Dropping subscriber because format change\n");
    EXPECT_TRUE(with_audio.close_requested);
    EXPECT_FALSE(with_nothing.close_requested);
    EXPECT_TRUE(with_video.close_requested);
}

TEST_F(time_reset_test, does_not_touch_the_players_of_other_streams) {
    RTMPConnection& other = add_player("cam2");
    other.timebase.timebase_set = true;
    other.audio.header_delivered = true;
    EXPECT_EQ(reset("cam1"), "Notifing subscribers of time reset\n");
    EXPECT_TRUE(other.timebase.timebase_set);
    EXPECT_FALSE(other.close_requested);
}

TEST_F(time_reset_test, does_not_drop_a_listed_connection_that_does_not_play) {
    RTMPConnection& listed = add_player();
    listed.stream_mode = "publish";
    listed.audio.header_delivered = true;
    EXPECT_EQ(reset(), "Notifing subscribers of time reset\n");
    EXPECT_FALSE(listed.close_requested);
}

TEST_F(time_reset_test, skips_empty_slots) {
    RTMPConnection& player = add_player();
    player.timebase.timebase_set = true;
    StreamRecord& record = find_or_insert_stream("cam1");
    record.players.insert(record.players.begin(), MAX_CONNECTIONS - 1);
    EXPECT_EQ(reset(), "Notifing subscribers of time reset\n");
    EXPECT_FALSE(player.timebase.timebase_set);
    EXPECT_EQ(record.players.size(), 2U);
    record.players.erase(record.players.begin());
}

TEST_F(time_reset_test, adds_its_offset_once_and_then_continues_from_the_players_clock) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    relay_audio(publisher, 5000, AAC_FRAME);
    fake_clock_us += 80000;
    relay_audio(publisher, 5080, AAC_FRAME);
    EXPECT_EQ(reset(), "Notifing subscribers of time reset\nDropping subscriber because format change\n");
    take_queued(player);
    fake_clock_us += 1120000;
    EXPECT_EQ(relay_audio(publisher, 9000, AAC_FRAME).printed,
              "From publisher to connection: source timebase 9000, add 5330\n");
    EXPECT_EQ(take_queued(player), (std::vector<QueuedMessage>{{MESSAGE_AUDIO, 1200, AAC_FRAME}}));
}

TEST_F(time_reset_death_test, a_player_outside_the_table_ends_the_process) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    StreamRecord record;
    record.players.push_back(MAX_CONNECTIONS);
    EXPECT_EXIT(notify_time_reset(record), testing::KilledBySignal(SIGABRT),
                assertion_line("get_connection", "i < MAX_CONNECTIONS"));
}
