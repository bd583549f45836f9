#include "tools/v9_rtmp_ctl/monitor.h"

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>

#include "tests/tools/fake_server.h"
#include "tests/tools/observed_clients.h"
#include "tools/v9_rtmp_ctl/state_file.h"

namespace {

// Lists one publisher, whose counter grows by 50 from one listing to the next.
class monitor_test : public testing::Test {
  protected:
    ~monitor_test() override { std::filesystem::remove_all(state); }

    std::uint64_t received = 100000;
    const std::string state = make_directory();
    const FakeServer server{[this](const Request& request, bool /*async*/) {
        received += 50;
        const std::string line = plain_line(observed_publisher(0, "cam1", received));
        return std::optional(Reply{0, request.command, "", {{"connection", line}}});
    }};
};

}  // namespace

TEST_F(monitor_test, takes_the_ages_of_a_watchdogs_history_and_not_its_counters) {
    ConnectionHistory watchdogs;
    watchdogs.take_in({clock_us() - 60 * ONE_SECOND_US, {observed_publisher(0, "cam1", 100000)}});
    ASSERT_TRUE(replace_file(state + "/" + WATCHDOG_HISTORY_FILE, watchdogs.to_json(boot_id())));
    Monitor monitor(server.path(), 5 * ONE_SECOND_US, state);
    for (const std::uint64_t received_since : {0U, 50U, 100U}) {
        monitor.poll();
        ASSERT_FALSE(monitor.view().failure);
        EXPECT_EQ(monitor.view().series.listed().at("cam1").bytes_received, received_since);
    }
    const ConnectionHistory& history = monitor.view().history;
    EXPECT_GE(history.now_us() - history.clients().at(0).first_seen_us, 60 * ONE_SECOND_US);
}

TEST_F(monitor_test, counts_from_its_first_poll_if_no_watchdog_runs) {
    Monitor monitor(server.path(), 5 * ONE_SECOND_US, state);
    EXPECT_EQ(monitor.view().polled_unix_seconds, std::nullopt);
    const std::int64_t earliest = std::time(nullptr);
    for (const std::uint64_t received_since : {0U, 50U}) {
        monitor.poll();
        EXPECT_GE(monitor.view().polled_unix_seconds, earliest);
        ASSERT_FALSE(monitor.view().failure);
        EXPECT_EQ(monitor.view().series.listed().at("cam1").bytes_received, received_since);
    }
}

TEST(monitor, counts_all_of_the_time_between_polls_that_are_far_apart) {
    ConnectionHistory history(times_between_polls(15 * ONE_SECOND_US));
    for (const std::uint64_t second : {100U, 115U, 130U}) {
        history.take_in({second * ONE_SECOND_US, {observed_publisher(0, "cam1", 100000)}});
    }
    EXPECT_EQ(history.streams().at("cam1").publisher_silence_us, 30 * ONE_SECOND_US);
}
