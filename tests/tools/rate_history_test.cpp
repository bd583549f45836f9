#include "tools/v9_rtmp_ctl/rate_history.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tools/observed_clients.h"

using testing::Contains;
using testing::IsEmpty;
using testing::Key;
using testing::Not;
using testing::SizeIs;

namespace {

class rate_plots_test : public testing::Test {
  protected:
    // Lists a publisher of 1000 and a player of 500 bytes a second, up to this second.
    void run_until(std::uint64_t second) {
        for (; now_s <= second; ++now_s) {
            poll({observed_publisher(0, "cam1", 1000 * now_s), observed_player(1, "cam1", 500 * now_s)});
        }
    }
    void poll(const std::vector<Connection>& connections) {
        history.take_in({now_s * ONE_SECOND_US, connections});
        rates.take_in(history);
    }

    std::uint64_t now_s = 1;
    ConnectionHistory history;
    RateHistory rates;
};

}  // namespace

TEST_F(rate_plots_test, have_a_point_for_each_step) {
    run_until(5);
    EXPECT_THAT(rates.streams(), IsEmpty());
    run_until(16);
    ASSERT_THAT(rates.streams().at("cam1"), SizeIs(3));
    for (const RatePoint& point : rates.streams().at("cam1")) {
        EXPECT_DOUBLE_EQ(point.in, 1000);
        EXPECT_DOUBLE_EQ(point.out, 500);
    }
    EXPECT_DOUBLE_EQ(rates.total().back().in, 1000);
}

TEST_F(rate_plots_test, keep_the_last_minutes_only) {
    run_until(1000);
    EXPECT_THAT(rates.streams().at("cam1"), SizeIs(RateHistory::MAX_POINTS));
    EXPECT_THAT(rates.total(), SizeIs(RateHistory::MAX_POINTS));
}

TEST_F(rate_plots_test, forget_a_stream_that_has_been_gone_for_minutes) {
    run_until(20);
    for (; now_s < 100; ++now_s) {
        poll({});
    }
    EXPECT_THAT(rates.streams(), Contains(Key("cam1")));
    for (; now_s < 400; ++now_s) {
        poll({});
    }
    EXPECT_THAT(rates.streams(), Not(Contains(Key("cam1"))));
}
