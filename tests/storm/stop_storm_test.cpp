// Stops a server under load from a crowd, at random moments.
#include <gtest/gtest.h>

#include <exception>
#include <thread>

#include "tests/storm/accept_queue.h"
#include "tests/storm/crowd.h"
#include "tests/storm/storm_size.h"
#include "tests/support/background.h"
#include "tests/support/media_bytes.h"
#include "tests/support/server_process.h"

namespace {

constexpr Milliseconds STOP_LIMIT = scaled(Milliseconds{1000});
// Some are stopped before the first client, most under full load.
constexpr std::size_t LONGEST_LIFE_MS = 500;
// For one server in this many, the test waits until it is under full load.
constexpr std::size_t BUSY_ONE_IN = 3;
constexpr std::size_t BUSY_THREADS = 40;

// Publishes the stream for the crowd to play, until the server ends. For a player that does not read, a
// writer thread has to wait.
void broadcast() {
    try {
        RtmpClient publisher = connect_through_queue();
        (void)publisher.handshake();
        (void)publisher.connect_app();
        (void)publisher.publish(LIVE_STREAM);
        for (std::uint32_t i = 0;; ++i) {
            publisher.send_video(1, avc_inter_frame(i, 8000));
            std::this_thread::sleep_for(Milliseconds{10});
        }
    } catch (const std::exception&) {
        std::this_thread::sleep_for(Milliseconds{2});
    }
}

class stop_storm_test : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(server, stop_storm_test, testing::Range(0, STORM_SHARDS));

}  // namespace

TEST_P(stop_storm_test, a_server_told_to_stop_exits_in_order_within_a_second) {
    const std::uint64_t seed = storm_seed() + 1000 * static_cast<std::uint64_t>(GetParam());
    const std::size_t stops = storm_count("V9_STORM_STOPS", 120, 40) / STORM_SHARDS;
    Random random(seed);
    const Background broadcaster(broadcast);
    const Crowd crowd({.seed = seed, .server_may_go = true});
    for (std::size_t i = 0; i < stops; ++i) {
        ServerProcess server({"--dbg-pkt"});
        if (i % BUSY_ONE_IN == 0) {
            ASSERT_TRUE(holds_within(DEFAULT_WAIT, [&] { return server.thread_count() >= BUSY_THREADS; }))
                << "no client comes";
        }
        linger(random, LONGEST_LIFE_MS);
        EXPECT_LE(server.stop(), STOP_LIMIT) << "stop " << i;
    }
}
