#include "tools/v9_rtmp_ctl/stream_health.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

#include "tests/tools/observed_clients.h"

using testing::ElementsAre;
using testing::Pair;

namespace {

class health_test : public testing::Test {
  protected:
    template <typename MakeConnections>
    void seconds(unsigned count, const MakeConnections& make_connections) {
        for (unsigned i = 0; i < count; ++i) {
            ++now_s;
            last = make_connections(now_s);
            history.take_in({now_s * ONE_SECOND_US, last});
        }
    }
    ClientHealth of(std::size_t idx) const { return client_health(history, history.clients().at(idx)); }

    std::uint64_t now_s = 0;
    std::vector<Connection> last;
    ConnectionHistory history;
};

}  // namespace

TEST_F(health_test, a_player_that_stands_still_while_its_stream_goes_on_is_stalled) {
    seconds(20, [](std::uint64_t s) {
        return std::vector{observed_publisher(0, "cam1", 1000 * s), observed_player(1, "cam1", 1000 * s)};
    });
    EXPECT_FALSE(of(1).is_stalled);
    seconds(4, [](std::uint64_t s) {
        return std::vector{observed_publisher(0, "cam1", 1000 * s), observed_player(1, "cam1", 20000)};
    });
    EXPECT_FALSE(of(1).is_stalled);
    seconds(1, [](std::uint64_t s) {
        return std::vector{observed_publisher(0, "cam1", 1000 * s), observed_player(1, "cam1", 20000)};
    });
    EXPECT_TRUE(of(1).is_stalled);
    EXPECT_EQ(of(1).still_us, 5 * ONE_SECOND_US);
}

TEST_F(health_test, players_of_a_silent_publisher_are_not_stalled) {
    seconds(30, [](std::uint64_t s) {
        return std::vector{observed_publisher(0, "cam1", s < 10 ? 1000 * s : 10000),
                           observed_player(1, "cam1", s < 10 ? 1000 * s : 10000)};
    });
    EXPECT_FALSE(of(1).is_stalled);
    EXPECT_THAT(stream_states(last, &history), ElementsAre(Pair("cam1", StreamState::SILENT)));
}

TEST_F(health_test, a_player_that_reads_slowly_is_behind_the_foremost) {
    seconds(40, [](std::uint64_t s) {
        return std::vector{observed_publisher(0, "cam1", 1000 * s), observed_player(1, "cam1", 1000 * s),
                           observed_player(2, "cam1", 500 * s)};
    });
    EXPECT_EQ(of(1).behind_us, 0U);
    // Half of what the other one received in the 34 s since both could be compared, or a little more.
    EXPECT_GE(of(2).behind_us, 17 * ONE_SECOND_US);
    EXPECT_LE(of(2).behind_us, 20 * ONE_SECOND_US);
}

TEST_F(health_test, a_player_that_reads_slowly_is_behind_even_when_it_keeps_up_with_a_publisher_that_waits) {
    seconds(40, [](std::uint64_t s) {
        std::vector connections{observed_publisher(0, "cam1", 1000 * s), observed_player(1, "cam1", 1000 * s),
                                observed_player(2, "cam1", 500 * s)};
        if (s > 2) {
            connections.push_back(observed_publisher(3, "cam1", 10 * s));
        }
        return connections;
    });
    EXPECT_GE(of(2).behind_us, 17 * ONE_SECOND_US);
}

TEST_F(health_test, the_time_that_players_waited_for_a_publisher_does_not_count) {
    seconds(600, [](std::uint64_t) {
        return std::vector{observed_player(1, "cam1", 3000), observed_player(2, "cam1", 3000)};
    });
    const auto one_second_apart = [](std::uint64_t s) {
        const std::uint64_t sent = 1000 * (s - 600);
        return std::vector{observed_publisher(0, "cam1", sent), observed_player(1, "cam1", 3000 + sent),
                           observed_player(2, "cam1", 2000 + sent)};
    };
    for (const unsigned later : {1U, 1U, 3U, 95U}) {
        seconds(later, one_second_apart);
        EXPECT_LE(of(2).behind_us, ONE_SECOND_US) << now_s;
    }
}

TEST_F(health_test, a_player_that_lacks_the_end_of_a_stopped_stream_is_no_further_behind_later) {
    seconds(400, [](std::uint64_t s) {
        const std::uint64_t bytes = 1000 * std::min<std::uint64_t>(s, 390);
        // It receives nothing from the 10th to the 20th second.
        const std::uint64_t late =
            std::max(std::min<std::uint64_t>(bytes, 10000), bytes - std::min<std::uint64_t>(bytes, 10000));
        return std::vector{observed_player(1, "cam1", bytes), observed_player(2, "cam1", late)};
    });
    EXPECT_EQ(of(1).behind_us, 10 * ONE_SECOND_US);
}

TEST_F(health_test, a_player_that_stopped_longer_ago_than_samples_are_kept_is_behind_by_the_mean_rate) {
    seconds(400, [](std::uint64_t s) {
        return std::vector{observed_player(1, "cam1", 1000 * s),
                           observed_player(2, "cam1", 1000 * std::min<std::uint64_t>(s, 200))};
    });
    EXPECT_GE(of(1).behind_us, 200 * ONE_SECOND_US);
    EXPECT_LE(of(1).behind_us, 205 * ONE_SECOND_US);
}

TEST_F(health_test, a_player_with_large_chunks_is_not_behind_those_with_small_ones) {
    seconds(4000, [](std::uint64_t s) {
        return std::vector{observed_publisher(0, "cam1", 1000 * s), observed_player(1, "cam1", 1008 * s),
                           observed_player(2, "cam1", 1000 * s)};
    });
    EXPECT_EQ(of(2).behind_us, 0U);
}

TEST_F(health_test, a_lone_player_that_reads_slowly_is_behind_its_publisher) {
    seconds(40, [](std::uint64_t s) {
        return std::vector{observed_publisher(0, "cam1", 1000 * s), observed_player(1, "cam1", 500 * s)};
    });
    // A tenth of what the publisher sent may not have been media.
    EXPECT_GE(of(1).behind_us, 15 * ONE_SECOND_US);
    EXPECT_LE(of(1).behind_us, 18 * ONE_SECOND_US);
}

TEST_F(health_test, a_lone_player_that_lacks_less_than_a_tenth_is_not_behind) {
    seconds(4000, [](std::uint64_t s) {
        return std::vector{observed_publisher(0, "cam1", 1000 * s), observed_player(1, "cam1", 910 * s)};
    });
    EXPECT_EQ(of(1).behind_us, 0U);
}

TEST_F(health_test, players_that_read_equally_slowly_are_behind_their_publisher) {
    seconds(40, [](std::uint64_t s) {
        return std::vector{observed_publisher(0, "cam1", 1000 * s), observed_player(1, "cam1", 500 * s),
                           observed_player(2, "cam1", 500 * s)};
    });
    EXPECT_GE(of(1).behind_us, 15 * ONE_SECOND_US);
    EXPECT_GE(of(2).behind_us, 15 * ONE_SECOND_US);
}

TEST_F(health_test, a_player_that_has_all_of_a_stopped_stream_is_not_behind) {
    seconds(400, [](std::uint64_t s) {
        const std::uint64_t bytes = 1000 * std::min<std::uint64_t>(s, 40);
        return std::vector{observed_publisher(0, "cam1", bytes), observed_player(1, "cam1", bytes)};
    });
    EXPECT_EQ(of(1).behind_us, 0U);
}

TEST_F(health_test, a_player_is_near_its_timestamp_limit_twenty_minutes_before_reaching_it) {
    const auto both = [](std::uint64_t s) {
        return std::vector{observed_publisher(0, "cam1", 1000 * s), observed_player(1, "cam1", 1000 * s)};
    };
    seconds(1, both);
    now_s += NEAR_LIMIT_US / ONE_SECOND_US - 2;
    seconds(1, both);
    EXPECT_FALSE(of(1).is_near_limit);
    seconds(2, both);
    EXPECT_TRUE(of(1).is_near_limit);
    EXPECT_FALSE(of(0).is_near_limit);
}

TEST_F(health_test, a_stream_is_waiting_until_it_has_a_publisher) {
    seconds(1, [](std::uint64_t s) {
        return std::vector{observed_player(0, "lobby", s), observed_publisher(1, "cam1", s),
                           observed_client(2, "", "", 0, 0)};
    });
    EXPECT_THAT(stream_states(last, &history),
                ElementsAre(Pair("cam1", StreamState::LIVE), Pair("lobby", StreamState::WAITING)));
    EXPECT_THAT(stream_states(last, nullptr),
                ElementsAre(Pair("cam1", StreamState::LIVE), Pair("lobby", StreamState::WAITING)));
}

TEST_F(health_test, a_stream_is_live_while_one_of_its_publishers_sends) {
    seconds(10, [](std::uint64_t s) {
        return std::vector{observed_publisher(0, "cam1", 5), observed_publisher(1, "cam1", 1000 * s)};
    });
    EXPECT_THAT(stream_states(last, &history), ElementsAre(Pair("cam1", StreamState::LIVE)));
}
