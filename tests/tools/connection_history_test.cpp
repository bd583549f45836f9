#include "tools/v9_rtmp_ctl/connection_history.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::IsEmpty;
using testing::Optional;
using testing::SizeIs;

namespace {

constexpr std::uint64_t SECOND = 1000000;
constexpr const char* BOOT = "one boot";

Connection client(unsigned id, const char* mode, std::uint64_t sent, std::uint64_t received,
                  const std::string& stream = "cam1") {
    Connection connection;
    connection.id = id;
    connection.mode = mode;
    connection.stream = *mode == '\0' ? "" : stream;
    connection.bytes_sent = sent;
    connection.bytes_received = received;
    connection.address = "10.0.0." + std::to_string(id) + ":1";
    return connection;
}

Connection player(unsigned id, std::uint64_t sent) {
    return client(id, "play", sent, 3000);
}

Connection publisher(unsigned id, std::uint64_t received) {
    return client(id, "publish", 3000, received);
}

// One listing for each second, each with its own counters.
class history_test : public testing::Test {
  protected:
    template <typename MakeConnections>
    void seconds(unsigned count, const MakeConnections& make_connections) {
        for (unsigned i = 0; i < count; ++i) {
            ++now_s;
            history.take_in({now_s * SECOND, make_connections(now_s)});
        }
    }

    void listing_at(std::uint64_t second, const std::vector<Connection>& connections) {
        now_s = second;
        history.take_in({now_s * SECOND, connections});
    }

    std::uint64_t age_s(std::size_t idx = 0) const {
        return (history.now_us() - history.clients().at(idx).first_seen_us) / SECOND;
    }

    std::uint64_t now_s = 1000;
    ConnectionHistory history;
};

}  // namespace

TEST_F(history_test, a_clients_age_begins_when_it_is_first_seen) {
    listing_at(1000, {});
    EXPECT_THAT(history.clients(), IsEmpty());
    listing_at(1001, {player(3, 10)});
    listing_at(1011, {player(3, 20)});
    ASSERT_THAT(history.clients(), SizeIs(1));
    EXPECT_EQ(age_s(), 10U);
    listing_at(1012, {});
    EXPECT_THAT(history.clients(), IsEmpty());
}

TEST_F(history_test, a_client_that_chooses_a_stream_is_still_the_same_client) {
    listing_at(1000, {client(3, "", 10, 10)});
    EXPECT_EQ(history.clients()[0].stream_seen_us, 0U);
    listing_at(1005, {client(3, "play", 10, 10)});
    EXPECT_EQ(age_s(), 5U);
    EXPECT_EQ(history.clients()[0].stream_seen_us, 1005 * SECOND);
}

TEST_F(history_test, another_address_stream_or_mode_or_a_smaller_counter_means_another_client) {
    Connection elsewhere = player(3, 10);
    elsewhere.address = "10.0.0.3:2";
    for (const Connection& other :
         {elsewhere, client(3, "play", 10, 3000, "cam2"), client(3, "publish", 10, 3000),
          client(3, "", 10, 3000), player(3, 9), client(3, "play", 10, 2999)}) {
        listing_at(now_s + 1, {});
        listing_at(now_s + 1, {player(3, 10)});
        listing_at(now_s + 5, {player(3, 10)});
        EXPECT_EQ(age_s(), 5U);
        listing_at(now_s + 1, {other});
        EXPECT_EQ(age_s(), 0U) << plain_line(other);
    }
}

TEST_F(history_test, a_counter_stands_still_from_the_last_listing_in_which_it_had_grown) {
    listing_at(1000, {player(3, 10)});
    listing_at(1001, {player(3, 20)});
    seconds(7, [](std::uint64_t /*second*/) { return std::vector{player(3, 20)}; });
    EXPECT_EQ(still_us(history, history.clients()[0].sent), 7 * SECOND);
    EXPECT_EQ(still_us(history, history.clients()[0].received), 8 * SECOND);
    EXPECT_EQ(history.clients()[0].sent.first_bytes, 10U);
    listing_at(now_s + 1, {player(3, 21)});
    EXPECT_EQ(still_us(history, history.clients()[0].sent), 0U);
}

TEST_F(history_test, time_without_listings_counts_for_ages_but_makes_no_client_stand_still) {
    listing_at(1000, {player(3, 10)});
    listing_at(1600, {player(3, 10)});
    EXPECT_EQ(age_s(), 600U);
    EXPECT_EQ(still_us(history, history.clients()[0].sent), 5 * SECOND);
    EXPECT_EQ(history.attended_us(), 5 * SECOND);
}

TEST_F(history_test, a_listing_without_address_or_counters_counts_against_no_client) {
    listing_at(1000, {player(3, 10)});
    Connection unknown = player(3, 10);
    unknown.bytes_sent.reset();
    unknown.bytes_received.reset();
    unknown.address.clear();
    seconds(4, [&](std::uint64_t /*second*/) { return std::vector{unknown}; });
    ASSERT_THAT(history.clients(), SizeIs(1));
    EXPECT_EQ(age_s(), 4U);
    EXPECT_EQ(still_us(history, history.clients()[0].sent), 0U);
    unknown.id = 4;
    listing_at(1005, {unknown});
    EXPECT_THAT(history.clients(), IsEmpty());
}

TEST_F(history_test, a_clock_that_was_set_back_starts_a_new_history_of_clients) {
    listing_at(1000, {player(3, 10)});
    listing_at(1010, {player(3, 20)});
    listing_at(500, {player(3, 30)});
    EXPECT_EQ(age_s(), 0U);
    EXPECT_EQ(history.streams().at("cam1").bytes_sent, 50U);
}

TEST_F(history_test, totals_of_a_stream_survive_reconnects) {
    listing_at(1000, {client(1, "", 100, 100), player(3, 10)});
    listing_at(1001, {client(1, "publish", 100, 500), player(3, 30)});
    listing_at(1002, {player(3, 70)});
    listing_at(1003, {client(1, "publish", 5, 200), player(3, 5)});
    const StreamTotals& stream = history.streams().at("cam1");
    EXPECT_EQ(stream.bytes_received, 500U + 200U);
    EXPECT_EQ(stream.bytes_sent, 70U + 5U);
    EXPECT_THAT(history.streams(), SizeIs(1));
}

TEST_F(history_test, stall_seconds_count_only_while_the_stream_moves) {
    const auto listed = [this](std::uint64_t fast, std::uint64_t slow, std::uint64_t source) {
        listing_at(now_s + 1, {player(1, fast), player(2, slow), publisher(3, source)});
    };
    listed(10, 10, 10);
    listed(20, 10, 20);
    listed(30, 10, 30);
    listed(40, 20, 40);
    listed(40, 20, 40);
    listed(40, 20, 40);
    const StreamTotals& stream = history.streams().at("cam1");
    EXPECT_EQ(stream.player_stall_us, 2 * SECOND);
    EXPECT_EQ(stream.publisher_silence_us, 2 * SECOND);
}

TEST_F(history_test, untrusted_names_are_bounded) {
    const std::string longest(ConnectionHistory::MAX_NAME_BYTES, 'a');
    listing_at(1000, {client(1, "play", 1, 1, longest), client(2, "play", 1, 1, longest + "a")});
    EXPECT_THAT(history.streams(), SizeIs(1));
    for (unsigned i = 0; i < ConnectionHistory::MAX_STREAMS + 10; ++i) {
        listing_at(now_s + 1, {client(1, "play", 1, 1, "name" + std::to_string(i)), player(2, 7)});
    }
    EXPECT_THAT(history.streams(), SizeIs(ConnectionHistory::MAX_STREAMS));
    EXPECT_EQ(history.streams().at("cam1").bytes_sent, 7U);
    EXPECT_FALSE(history.streams().contains("name0"));
}

TEST_F(history_test, clients_are_compared_from_the_moment_when_both_have_settled) {
    // The second one joins five seconds later, and is sent a burst of headers then.
    seconds(5, [](std::uint64_t s) { return std::vector{player(1, (s - 1000) * 100)}; });
    seconds(5, [](std::uint64_t s) {
        return std::vector{player(1, (s - 1000) * 100), player(2, (s - 1000) * 100 + 5000)};
    });
    EXPECT_EQ(gained_beside(history.clients()[0], history.clients()[1]), std::nullopt);
    seconds(10, [](std::uint64_t s) {
        return std::vector{player(1, (s - 1000) * 100), player(2, (s - 1000) * 100 + 5000)};
    });
    const ClientRecord& first = history.clients()[0];
    const ClientRecord& second = history.clients()[1];
    EXPECT_EQ(first.settled_as, 1U);
    EXPECT_EQ(second.settled_as, 2U);
    // Second 1006 is its first, so it settled in 1011.
    EXPECT_THAT(gained_beside(first, second), Optional(900U));
    EXPECT_THAT(gained_beside(second, first), Optional(900U));
    EXPECT_THAT(gained_beside_until(first, second, history.attended_us() - 4 * SECOND), Optional(500U));
    EXPECT_THAT(gained_beside_until(first, second, history.attended_us() - 15 * SECOND), Optional(0U));
}

TEST_F(history_test, clients_of_two_streams_are_not_compared) {
    seconds(20, [](std::uint64_t s) { return std::vector{player(1, s), client(2, "play", s, s, "cam2")}; });
    EXPECT_EQ(gained_beside(history.clients()[0], history.clients()[1]), std::nullopt);
}

TEST_F(history_test, movement_is_known_for_clients_that_were_there_for_the_whole_window) {
    seconds(10, [](std::uint64_t s) { return std::vector{player(1, s)}; });
    EXPECT_FALSE(recent_movement(history, history.clients()[0], 10 * SECOND, 2));
    seconds(1, [](std::uint64_t s) { return std::vector{player(1, s)}; });
    const std::optional<Movement> all = recent_movement(history, history.clients()[0], 10 * SECOND, 2);
    ASSERT_TRUE(all);
    EXPECT_EQ(all->parts, 2U);
    EXPECT_EQ(all->bytes, 10U);
    seconds(6, [](std::uint64_t /*second*/) { return std::vector{player(1, 1011)}; });
    const std::optional<Movement> half = recent_movement(history, history.clients()[0], 10 * SECOND, 2);
    ASSERT_TRUE(half);
    EXPECT_EQ(half->parts, 1U);
    EXPECT_EQ(half->bytes, 4U);
}

TEST_F(history_test, samples_stay_as_many_as_the_window_needs) {
    seconds(1000, [](std::uint64_t s) { return std::vector{player(1, s)}; });
    EXPECT_LE(history.clients()[0].samples.size(), 62U);
    EXPECT_THAT(recent_movement(history, history.clients()[0], 60 * SECOND, 3)->bytes, 60U);
}

TEST_F(history_test, a_restored_history_continues_where_it_was_saved) {
    const auto both = [](std::uint64_t s) {
        return std::vector{client(1, "play", s * 10, 1, "a\"b\xc3\xa4"),
                           client(2, "play", 7, 1, "a\"b\xc3\xa4"), client(3, "", 1, 1)};
    };
    seconds(20, both);
    const std::string saved = history.to_json(BOOT);
    EXPECT_EQ(saved.find('\n'), std::string::npos);
    ConnectionHistory restored;
    ASSERT_TRUE(restored.restore(saved, BOOT));
    EXPECT_EQ(restored.to_json(BOOT), saved);
    // Ten minutes without a watchdog.
    now_s += 600;
    restored.take_in({now_s * SECOND, both(now_s)});
    const std::vector<ClientRecord>& clients = restored.clients();
    ASSERT_THAT(clients, SizeIs(3));
    EXPECT_EQ(restored.now_us() - clients[0].first_seen_us, 619 * SECOND);
    EXPECT_EQ(still_us(restored, clients[0].sent), 0U);
    EXPECT_EQ(still_us(restored, clients[1].sent), (19U + 5U) * SECOND);
    EXPECT_THAT(gained_beside(clients[0], clients[1]), Optional((600U + 14U) * 10));
    EXPECT_EQ(restored.streams().begin()->second.bytes_sent, now_s * 10 + 7);
}

TEST_F(history_test, only_totals_are_restored_after_another_boot) {
    seconds(3, [](std::uint64_t s) { return std::vector{player(1, s)}; });
    ConnectionHistory restored;
    ASSERT_TRUE(restored.restore(history.to_json(BOOT), "another boot"));
    EXPECT_THAT(restored.clients(), IsEmpty());
    EXPECT_EQ(restored.now_us(), 0U);
    restored.take_in({5 * SECOND, {player(1, 2000)}});
    EXPECT_EQ(restored.streams().at("cam1").bytes_sent, 1003U + 2000U);
}

TEST_F(history_test, text_that_is_not_a_history_is_refused) {
    seconds(3, [](std::uint64_t s) { return std::vector{player(1, s)}; });
    const std::string saved = history.to_json(BOOT);
    for (const std::string& text :
         {std::string(), std::string("{}"), std::string("[1]"), std::string("\xff"), saved.substr(0, 100),
          std::string(R"({"version":2})"), std::string(R"({"version":1,"boot":"one boot"})")}) {
        EXPECT_FALSE(history.restore(text, BOOT)) << text;
    }
    EXPECT_EQ(history.to_json(BOOT), saved);
}

TEST_F(history_test,
       a_publisher_stays_the_relayed_one_over_a_pause_between_polls_while_its_stream_has_players) {
    for (const bool has_player : {true, false}) {
        history = ConnectionHistory();
        const auto both = [has_player](std::uint64_t s) {
            std::vector<Connection> connections = {publisher(0, 1000 * s), publisher(1, 10 * s)};
            if (has_player) {
                connections.push_back(player(2, 1000));
            }
            return connections;
        };
        seconds(2, [](std::uint64_t s) { return std::vector{publisher(0, 1000 * s)}; });
        seconds(2, both);
        EXPECT_TRUE(history.clients().at(0).is_relayed);
        now_s += 5;
        seconds(1, both);
        EXPECT_EQ(history.clients().at(0).is_relayed, has_player);
        EXPECT_FALSE(history.clients().at(1).is_relayed);
    }
}
