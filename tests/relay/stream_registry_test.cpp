#include "relay/stream_registry.h"

#include <string>
#include <vector>

#include "tests/support/assertion_line.h"
#include "tests/support/connection_fixture.h"

namespace {

constexpr std::uint64_t FIVE_SECONDS_US = 5000000;

class stream_registry_test : public ConnectionFixture {
  protected:
    std::string subscribe(const std::string& name, std::size_t connection) {
        return printed_by([&] { stream_subscribe_for_play(name, connection); });
    }
    std::string unsubscribe(const std::string& name, std::size_t connection) {
        return printed_by([&] { stream_unsubscribe_for_play(name, connection); });
    }
    std::string dispose() {
        return printed_by([] { dispose_idle_streams(); });
    }
    void insert(const std::string& name, std::uint64_t last_activity_us) {
        find_or_insert_stream(name).last_activity_us = last_activity_us;
    }
};

using stream_registry_death_test = stream_registry_test;

}  // namespace

TEST_F(stream_registry_test, a_lookup_creates_a_record_without_publisher_players_and_activity) {
    const StreamRecord& record = find_or_insert_stream("cam1");
    EXPECT_EQ(record.publisher, NO_CONNECTION);
    EXPECT_EQ(record.last_activity_us, 0U);
    EXPECT_TRUE(record.players.empty());
    EXPECT_EQ(&find_or_insert_stream("cam1"), &record);
    EXPECT_EQ(stream_count(), 1U);
}

TEST_F(stream_registry_test, names_are_compared_byte_by_byte) {
    const std::vector<std::string> names{"", "cam", "Cam", "cam1", std::string("cam\0", 4)};
    for (const std::string& name : names) {
        insert(name, fake_clock_us);
    }
    EXPECT_EQ(stream_count(), names.size());
}

TEST_F(stream_registry_test, subscribing_twice_is_reported_once_and_listed_once) {
    EXPECT_EQ(subscribe("live", 3), "Connection for play subscribed to 'live'\n");
    fake_clock_us += 7;
    EXPECT_EQ(subscribe("live", 3), "");
    EXPECT_EQ(find_or_insert_stream("live").players, std::vector<std::size_t>{3});
    EXPECT_EQ(find_or_insert_stream("live").last_activity_us, fake_clock_us);
    unsubscribe("live", 3);
}

TEST_F(stream_registry_test, players_are_kept_in_the_order_of_their_subscription) {
    for (const std::size_t player : {127U, 0U, 5U}) {
        subscribe("live", player);
    }
    EXPECT_EQ(find_or_insert_stream("live").players, (std::vector<std::size_t>{127, 0, 5}));
    EXPECT_EQ(unsubscribe("live", 0), "Connection for play unsubscribed from 'live'\n");
    EXPECT_EQ(find_or_insert_stream("live").players, (std::vector<std::size_t>{127, 5}));
    unsubscribe("live", 127);
    unsubscribe("live", 5);
}

TEST_F(stream_registry_test, unsubscribing_removes_every_occurrence_and_reports_it_once) {
    find_or_insert_stream("live").players = {3, 4, 3};
    EXPECT_EQ(unsubscribe("live", 3), "Connection for play unsubscribed from 'live'\n");
    EXPECT_EQ(find_or_insert_stream("live").players, std::vector<std::size_t>{4});
    unsubscribe("live", 4);
}

TEST_F(stream_registry_test, unsubscribing_from_an_unknown_name_leaves_a_record_for_five_seconds) {
    EXPECT_EQ(unsubscribe("nobody", 3), "");
    EXPECT_EQ(stream_count(), 1U);
    EXPECT_EQ(find_or_insert_stream("nobody").last_activity_us, fake_clock_us);
    fake_clock_us += FIVE_SECONDS_US - 1;
    EXPECT_EQ(dispose(), "");
    fake_clock_us += 1;
    EXPECT_EQ(dispose(), "Disposing old stream 'nobody'\n");
    EXPECT_EQ(stream_count(), 0U);
}

TEST_F(stream_registry_test, unsubscribing_a_connection_that_does_not_play_silently_counts_as_activity) {
    subscribe("live", 3);
    fake_clock_us += 7;
    EXPECT_EQ(unsubscribe("live", 4), "");
    EXPECT_EQ(find_or_insert_stream("live").players, std::vector<std::size_t>{3});
    EXPECT_EQ(find_or_insert_stream("live").last_activity_us, fake_clock_us);
    unsubscribe("live", 3);
}

TEST_F(stream_registry_test, subscribing_to_the_empty_name_and_unsubscribing_from_it_do_nothing) {
    EXPECT_EQ(subscribe("", 3), "");
    EXPECT_EQ(unsubscribe("", 3), "");
    EXPECT_EQ(stream_count(), 0U);
}

TEST_F(stream_registry_test, a_record_is_disposed_of_when_it_is_exactly_five_seconds_old) {
    const std::uint64_t start_us = fake_clock_us;
    insert("old", start_us);
    insert("younger", start_us + 1);
    fake_clock_us = start_us + FIVE_SECONDS_US;
    EXPECT_EQ(dispose(), "Disposing old stream 'old'\n");
    EXPECT_EQ(dispose(), "");
    EXPECT_EQ(stream_count(), 1U);
}

TEST_F(stream_registry_test, a_record_with_a_player_is_never_disposed_of) {
    subscribe("live", 3);
    fake_clock_us += 1000 * FIVE_SECONDS_US;
    EXPECT_EQ(dispose(), "");
    EXPECT_EQ(stream_count(), 1U);
    unsubscribe("live", 3);
    EXPECT_EQ(dispose(), "");
    fake_clock_us += FIVE_SECONDS_US;
    EXPECT_EQ(dispose(), "Disposing old stream 'live'\n");
}

TEST_F(stream_registry_test, a_publisher_alone_does_not_keep_a_record) {
    insert("live", fake_clock_us);
    find_or_insert_stream("live").publisher = 3;
    fake_clock_us += FIVE_SECONDS_US;
    EXPECT_EQ(dispose(), "Disposing old stream 'live'\n");
    EXPECT_EQ(find_or_insert_stream("live").publisher, NO_CONNECTION);
}

TEST_F(stream_registry_test, old_records_go_one_per_pass_in_byte_order_of_their_names) {
    for (const char* const name : {"b", "\xE9", "a", "", "B", "ab"}) {
        insert(name, fake_clock_us);
    }
    insert("aa", fake_clock_us + 1);
    fake_clock_us += FIVE_SECONDS_US;
    for (const char* const name : {"", "B", "a", "ab", "b", "\xE9"}) {
        EXPECT_EQ(dispose(), std::string("Disposing old stream '") + name + "'\n");
    }
    EXPECT_EQ(dispose(), "");
    EXPECT_EQ(stream_count(), 1U);
}

TEST_F(stream_registry_test, a_record_stays_where_it_is_when_others_come_and_go) {
    subscribe("m", 3);
    const StreamRecord& record = find_or_insert_stream("m");
    for (char letter = 'a'; letter <= 'z'; ++letter) {
        insert(std::string(2, letter), 0);
    }
    for (int pass = 0; pass < 26; ++pass) {
        EXPECT_NE(dispose(), "");
    }
    EXPECT_EQ(stream_count(), 1U);
    EXPECT_EQ(&find_or_insert_stream("m"), &record);
    EXPECT_EQ(record.players, std::vector<std::size_t>{3});
    unsubscribe("m", 3);
}

TEST_F(stream_registry_test, the_last_slot_of_the_table_may_play) {
    EXPECT_EQ(subscribe("live", MAX_CONNECTIONS - 1), "Connection for play subscribed to 'live'\n");
    EXPECT_EQ(unsubscribe("live", MAX_CONNECTIONS - 1), "Connection for play unsubscribed from 'live'\n");
}

TEST_F(stream_registry_death_test, a_slot_outside_the_table_ends_the_process) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const char* const name : {"live", ""}) {
        EXPECT_EXIT(stream_subscribe_for_play(name, MAX_CONNECTIONS), testing::KilledBySignal(SIGABRT),
                    assertion_line("stream_subscribe_for_play", "connection < MAX_CONNECTIONS"));
        EXPECT_EXIT(stream_unsubscribe_for_play(name, MAX_CONNECTIONS), testing::KilledBySignal(SIGABRT),
                    assertion_line("stream_unsubscribe_for_play", "connection < MAX_CONNECTIONS"));
    }
}
