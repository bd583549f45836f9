#include "core/connection_table.h"

#include "tests/support/assertion_line.h"
#include "tests/support/connection_fixture.h"

namespace {

using connection_table = ConnectionFixture;

using connection_table_death = ConnectionFixture;

}  // namespace

TEST_F(connection_table, fills_slots_upwards_and_keeps_the_scan_at_the_last_one) {
    EXPECT_EQ(add_connection().conn_idx, 0U);
    EXPECT_EQ(connections_free_scan, 0U);
    EXPECT_EQ(add_connection().conn_idx, 1U);
    EXPECT_EQ(connections_free_scan, 1U);
}

TEST_F(connection_table, refuses_when_full_and_gives_a_freed_slot_to_the_next_wherever_the_scan_is) {
    for (std::size_t i = 0; i < MAX_CONNECTIONS; ++i) {
        EXPECT_EQ(add_connection().conn_idx, i);
    }
    const int fd = dup(0);
    EXPECT_EQ(new_connection(fd, ""), nullptr);
    EXPECT_EQ(connections_free_scan, 0U);  // 127 is followed by 0
    EXPECT_EQ(new_connection(fd, ""), nullptr);
    EXPECT_EQ(connections_free_scan, 1U);
    for (const std::size_t scan : {0U, 5U, 6U, 127U}) {
        free_connection(5);
        connections_free_scan = scan;
        EXPECT_EQ(add_connection().conn_idx, 5U);
    }
    close(fd);
}

TEST_F(connection_table, continues_after_the_last_slot_given_even_if_an_earlier_one_is_free) {
    add_connection();
    add_connection();
    add_connection();
    free_connection(0);
    EXPECT_EQ(add_connection().conn_idx, 3U);
}

TEST_F(connection_table, takes_no_negative_descriptor) {
    EXPECT_EQ(new_connection(-1, "a"), nullptr);
}

TEST_F(connection_table, freeing_an_empty_slot_does_nothing) {
    EXPECT_EQ(printed_by([] { free_connection(7); }), "");
    EXPECT_EQ(get_connection(7), nullptr);
}

TEST_F(connection_table, freeing_closes_the_socket_and_empties_the_slot) {
    RTMPConnection& conn = add_connection();
    const std::size_t slot = conn.conn_idx;
    const int other_end = peer(conn);
    free_connection(slot);
    EXPECT_EQ(get_connection(slot), nullptr);
    char byte = 0;
    EXPECT_EQ(recv(other_end, &byte, 1, MSG_DONTWAIT), 0);
}

TEST_F(connection_table, a_pass_drops_what_is_not_ok_and_keeps_the_rest) {
    RTMPConnection& dropped = add_connection();
    RTMPConnection& kept = add_connection();
    dropped.close_requested = true;
    EXPECT_EQ(printed_by([] { idle_all_connections(); }), "Dropping connection\nDisposing old stream ''\n");
    EXPECT_EQ(get_connection(0), nullptr);
    EXPECT_EQ(get_connection(1), &kept);
}

TEST_F(connection_table_death, slots_end_at_128) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT((void)get_connection(128), testing::KilledBySignal(SIGABRT),
                assertion_line("get_connection", "i < MAX_CONNECTIONS"));
    EXPECT_EXIT(free_connection(128), testing::KilledBySignal(SIGABRT),
                assertion_line("free_connection", "i < size_t(MAX_CONNECTIONS)"));
    EXPECT_EXIT(idle_connection(128), testing::KilledBySignal(SIGABRT),
                assertion_line("idle_connection", "i < size_t(MAX_CONNECTIONS)"));
}

TEST_F(connection_table_death, the_scan_never_stands_past_the_last_slot) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    connections_free_scan = 128;
    EXPECT_EXIT((void)new_connection(0, ""), testing::KilledBySignal(SIGABRT),
                assertion_line("find_free_slot", "connections_free_scan < MAX_CONNECTIONS"));
}
