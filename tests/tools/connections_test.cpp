#include "tools/v9_rtmp_ctl/connections.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::DoubleEq;
using testing::ElementsAre;
using testing::Optional;

namespace {

constexpr const char* FULL_LINE = "5\tcam1\tpublish\t1280x720\t1000\t2000\t10.0.0.1:5000";

Connection make(unsigned id, std::string stream, std::string mode,
                std::optional<double> rate = std::nullopt) {
    Connection connection;
    connection.id = id;
    connection.stream = std::move(stream);
    connection.mode = std::move(mode);
    connection.sent_rate = rate;
    return connection;
}

Listing listing_of(std::uint64_t taken_us, const char* line) {
    return {taken_us, {*parse_connection_line(line)}};
}

std::vector<unsigned> sorted_ids(std::vector<Connection> connections, SortKey key) {
    sort_connections(connections, key);
    std::vector<unsigned> ids;
    for (const Connection& connection : connections) {
        ids.push_back(connection.id);
    }
    return ids;
}

}  // namespace

TEST(connection_line, seven_fields_are_read) {
    const std::optional<Connection> connection = parse_connection_line(FULL_LINE);
    ASSERT_TRUE(connection);
    EXPECT_EQ(connection->id, 5U);
    EXPECT_EQ(connection->stream, "cam1");
    EXPECT_EQ(connection->mode, "publish");
    EXPECT_EQ(connection->size, (VideoSize{1280, 720}));
    EXPECT_THAT(connection->bytes_sent, Optional(1000U));
    EXPECT_THAT(connection->bytes_received, Optional(2000U));
    EXPECT_EQ(connection->address, "10.0.0.1:5000");
}

TEST(connection_line, empty_fields_are_absent) {
    const std::optional<Connection> connection = parse_connection_line("0\t\t\t\t\t\t");
    ASSERT_TRUE(connection);
    EXPECT_EQ(*connection, Connection());
}

TEST(connection_line, a_tab_in_the_stream_name_forges_no_field) {
    const std::optional<Connection> connection =
        parse_connection_line("3\tcam\tplay\t1x1\t9\t9\t6.6.6.6:6\tpublish\t2x2\t1\t2\t10.0.0.1:5000");
    ASSERT_TRUE(connection);
    EXPECT_EQ(connection->stream, "cam\tplay\t1x1\t9\t9\t6.6.6.6:6");
    EXPECT_EQ(connection->mode, "publish");
    EXPECT_EQ(connection->address, "10.0.0.1:5000");
    EXPECT_EQ(plain_line(*connection),
              "3\tcam\\x09play\\x091x1\\x099\\x099\\x096.6.6.6:6\tpublish\t2x2\t1\t2\t10.0.0.1:5000");
}

TEST(connection_line, a_newline_in_the_stream_name_forges_no_line) {
    const std::optional<Connection> connection = parse_connection_line("3\tx\n4\tplay\t\t1\t2\ta");
    ASSERT_TRUE(connection);
    EXPECT_EQ(plain_line(*connection), "3\tx\\x0A4\tplay\t\t1\t2\ta");
}

TEST(connection_line, a_long_name_is_cut_and_its_length_is_kept) {
    Connection connection = make(0, std::string(1000, 'x'), "play");
    cut_name(connection, 1000);
    EXPECT_EQ(connection.stream, std::string(1000, 'x'));
    EXPECT_EQ(connection.whole_name_bytes, 0U);
    cut_name(connection, 999);
    EXPECT_EQ(connection.stream, std::string(999, 'x') + "\u2026");
    EXPECT_EQ(connection.whole_name_bytes, 1000U);
}

TEST(connection_line, an_invalid_line_is_refused) {
    for (const char* line :
         {"", "5", "5\tcam1\tplay\t\t1\t2",  // six fields
          "\tcam1\tplay\t\t1\t2\ta",         // no id
          "-1\tcam1\tplay\t\t1\t2\ta", "5x\tcam1\tplay\t\t1\t2\ta", " 5\tcam1\tplay\t\t1\t2\ta",
          "128\tcam1\tplay\t\t1\t2\ta",  // no slot
          "99999999999999999999\tcam1\tplay\t\t1\t2\ta", "5\tcam1\tplay\t1280\t1\t2\ta",
          "5\tcam1\tplay\tx720\t1\t2\ta", "5\tcam1\tplay\t1280x\t1\t2\ta",
          "5\tcam1\tplay\t1280x720x2\t1\t2\ta", "5\tcam1\tplay\t-1x720\t1\t2\ta",
          "5\tcam1\tplay\t4294967296x720\t1\t2\ta", "5\tcam1\tplay\t\tone\t2\ta", "5\tcam1\tplay\t\t1\t-2\ta",
          "5\tcam1\tplay\t\t18446744073709551616\t2\ta"}) {
        EXPECT_FALSE(parse_connection_line(line)) << line;
    }
}

TEST(connection_line, the_largest_numbers_are_read) {
    const char* const line = "127\tcam1\tplay\t2147483647x4294967295\t18446744073709551615\t0\ta";
    const std::optional<Connection> connection = parse_connection_line(line);
    ASSERT_TRUE(connection);
    EXPECT_EQ(plain_line(*connection), line);
}

TEST(connection_line, the_plain_form_is_the_servers_own) {
    for (const char* line :
         {FULL_LINE, "0\t\t\t\t0\t0\t1.2.3.4:5", "127\tcam_2\tplay\t\t1\t2\t", "9\ta\tplay\t\t\t\t"}) {
        const std::optional<Connection> connection = parse_connection_line(line);
        ASSERT_TRUE(connection) << line;
        EXPECT_EQ(plain_line(*connection), line);
    }
}

TEST(rates, are_bytes_per_second_between_two_listings) {
    const Listing before = listing_of(1000000, "5\tcam1\tplay\t\t1000\t200\ta");
    Listing after = listing_of(3000000, "5\tcam1\tplay\t\t5000\t200\ta");
    add_rates(before, after);
    EXPECT_THAT(after.connections[0].sent_rate, Optional(DoubleEq(2000)));
    EXPECT_THAT(after.connections[0].received_rate, Optional(DoubleEq(0)));
    EXPECT_THAT(total_rate(after.connections[0]), Optional(DoubleEq(2000)));
}

TEST(rates, are_unknown_for_another_client_in_the_same_slot) {
    const Listing before = listing_of(1000000, "5\tcam1\tplay\t\t1000\t200\ta");
    for (const char* line : {"5\tcam1\tplay\t\t2000\t300\tb", "5\tcam2\tplay\t\t2000\t300\ta",
                             "5\tcam1\tpublish\t\t2000\t300\ta", "6\tcam1\tplay\t\t2000\t300\ta"}) {
        Listing after = listing_of(2000000, line);
        add_rates(before, after);
        EXPECT_EQ(after.connections[0].sent_rate, std::nullopt) << line;
        EXPECT_EQ(total_rate(after.connections[0]), std::nullopt) << line;
    }
}

TEST(rates, are_unknown_if_a_counter_is_missing_or_has_decreased) {
    const Listing before = listing_of(1000000, "5\tcam1\tplay\t\t1000\t200\ta");
    Listing gone_back = listing_of(2000000, "5\tcam1\tplay\t\t999\t300\ta");
    add_rates(before, gone_back);
    EXPECT_EQ(gone_back.connections[0].sent_rate, std::nullopt);
    EXPECT_THAT(gone_back.connections[0].received_rate, Optional(DoubleEq(100)));
    Listing missing = listing_of(2000000, "5\tcam1\tplay\t\t\t\ta");
    add_rates(before, missing);
    EXPECT_EQ(missing.connections[0].received_rate, std::nullopt);
}

TEST(rates, are_unknown_when_no_time_has_passed) {
    const Listing before = listing_of(1000000, "5\tcam1\tplay\t\t1000\t200\ta");
    for (const std::uint64_t taken_us : {std::uint64_t{1000000}, std::uint64_t{999999}}) {
        Listing after = listing_of(taken_us, "5\tcam1\tplay\t\t5000\t200\ta");
        add_rates(before, after);
        EXPECT_EQ(after.connections[0].sent_rate, std::nullopt);
    }
}

TEST(sorting, follows_the_key) {
    const std::vector<Connection> connections{make(4, "", ""), make(3, "b", "play", 5.0),
                                              make(2, "b", "publish", 7.0), make(1, "a", "play"),
                                              make(0, "b", "play", 0.0)};
    EXPECT_THAT(sorted_ids(connections, SortKey::ID), ElementsAre(0, 1, 2, 3, 4));
    EXPECT_THAT(sorted_ids(connections, SortKey::STREAM), ElementsAre(1, 2, 0, 3, 4));
    EXPECT_THAT(sorted_ids(connections, SortKey::RATE), ElementsAre(2, 3, 0, 1, 4));
}
