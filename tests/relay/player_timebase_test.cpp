#include "relay/player_timebase.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

constexpr std::uint64_t NOW_US = 5000000000;
constexpr std::uint32_t HIGHEST = 0xFFFFFFFF;

struct RebaseCase {
    std::uint32_t source_timebase;
    std::uint32_t timestamp_offset;
    std::uint32_t source_timestamp;
    std::uint32_t output_timestamp;
};

const std::vector<RebaseCase> REBASE_CASES{
    {5000, 1200, 5000, 1200},   {5000, 1200, 5040, 1240},    {5000, 1200, 5080, 1280},
    {5000, 1200, 4999, 1200},   {5000, 1200, 0, 1200},       {0, 0, 0, 0},
    {0, 0, HIGHEST, HIGHEST},   {0, 10, HIGHEST, 9},         {HIGHEST, 10, HIGHEST, 10},
    {HIGHEST, 10, 0, 10},  // The source has wrapped: it counts as older than the timebase.
    {0xFFFFFE, 0, 0xFFFFFF, 1}, {1, 0, 0x1000000, 0xFFFFFF},
};

struct SentCase {
    std::uint32_t last;
    std::uint32_t sent;
    std::uint32_t remembered;
};

const std::vector<SentCase> SENT_CASES{
    {0, 0, 0},
    {10, 20, 20},
    {20, 20, 20},
    {20, 10, 20},
    {5010, 10, 5010},
    {5011, 10, 10},
    {100, HIGHEST, HIGHEST},
};

}  // namespace

TEST(player_timebase, starts_the_players_clock_with_the_first_packet) {
    PlayerTimebase timebase;
    timebase.timestamp_offset = 77;
    std::uint64_t clock_start_us = 0;
    start_timebase(timebase, clock_start_us, 5000, NOW_US);
    EXPECT_TRUE(timebase.timebase_set);
    EXPECT_EQ(timebase.source_timebase, 5000U);
    EXPECT_EQ(timebase.timestamp_offset, 0U);
    EXPECT_EQ(clock_start_us, NOW_US);
}

TEST(player_timebase, continues_at_the_time_since_the_players_first_packet) {
    struct Case {
        std::uint64_t elapsed_us;
        std::uint32_t offset_ms;
    };
    for (const Case& row : std::vector<Case>{{0, 0},
                                             {999, 0},
                                             {1000, 1},
                                             {1200000, 1200},
                                             {1200999, 1200},
                                             {4294967295000, HIGHEST},
                                             {4294967296000, 0},
                                             {4294967297000, 1}}) {
        PlayerTimebase timebase;
        std::uint64_t clock_start_us = NOW_US;
        start_timebase(timebase, clock_start_us, 5000, NOW_US + row.elapsed_us);
        EXPECT_EQ(timebase.timestamp_offset, row.offset_ms) << row.elapsed_us;
        EXPECT_EQ(clock_start_us, NOW_US) << row.elapsed_us;
    }
}

TEST(player_timebase, continues_at_zero_when_the_clock_has_not_advanced) {
    PlayerTimebase timebase;
    std::uint64_t clock_start_us = NOW_US + 1;
    start_timebase(timebase, clock_start_us, 5000, NOW_US);
    EXPECT_EQ(timebase.timestamp_offset, 0U);
}

TEST(player_timebase, counts_timestamps_from_its_source_timebase_and_adds_its_offset) {
    for (const RebaseCase& row : REBASE_CASES) {
        PlayerTimebase timebase;
        timebase.timebase_set = true;
        timebase.source_timebase = row.source_timebase;
        timebase.timestamp_offset = row.timestamp_offset;
        EXPECT_EQ(rebase(timebase, row.source_timestamp), row.output_timestamp)
            << row.source_timestamp << " from " << row.source_timebase;
    }
}

TEST(player_timebase, remembers_the_highest_timestamp_unless_it_fell_by_more_than_five_seconds) {
    for (const SentCase& row : SENT_CASES) {
        PlayerTimebase timebase;
        timebase.last_sent_timestamp = row.last;
        note_sent(timebase, row.sent);
        EXPECT_EQ(timebase.last_sent_timestamp, row.remembered) << row.sent << " after " << row.last;
    }
}

TEST(player_timebase, shows_an_offset_of_250_ms_beyond_what_was_sent_after_a_reset) {
    PlayerTimebase timebase;
    timebase.timebase_set = true;
    timebase.source_timebase = 5000;
    timebase.timestamp_offset = 1200;
    timebase.last_sent_timestamp = 1280;
    reset_timebase(timebase);
    EXPECT_FALSE(timebase.timebase_set);
    EXPECT_EQ(timebase.source_timebase, 0U);
    EXPECT_EQ(timebase.timestamp_offset, 6530U);
    EXPECT_EQ(timebase.last_sent_timestamp, 1280U);
}

TEST(player_timebase, keeps_its_offset_in_a_reset_before_the_first_packet) {
    PlayerTimebase timebase;
    timebase.timestamp_offset = 1200;
    timebase.source_timebase = 5;
    reset_timebase(timebase);
    EXPECT_EQ(timebase.timestamp_offset, 1200U);
    EXPECT_EQ(timebase.source_timebase, 0U);
}
