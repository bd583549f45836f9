// Stops a server under load from a crowd, at random moments.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <iostream>
#include <thread>

#include "tests/storm/accept_queue.h"
#include "tests/storm/crowd.h"
#include "tests/storm/storm_size.h"
#include "tests/support/media_bytes.h"
#include "tests/support/server_process.h"
#include "tests/support/test_failure.h"

namespace {

constexpr Milliseconds STOP_LIMIT = scaled(Milliseconds{1000});
// Some are stopped before the first client, most under full load.
constexpr std::size_t LONGEST_LIFE_MS = 500;
// For one server in this many, the test waits until it is under full load.
constexpr std::size_t BUSY_ONE_IN = 3;
constexpr std::size_t BUSY_THREADS = 40;

// Publishes the stream for the crowd to play. For a player that does not read, a writer thread has to wait.
class Broadcaster {
  public:
    Broadcaster() : thread([this] { broadcast(); }) {}
    ~Broadcaster() {
        stop_requested = true;
        thread.join();
    }
    Broadcaster(const Broadcaster&) = delete;
    Broadcaster& operator=(const Broadcaster&) = delete;

  private:
    // Publishes to each server for as long as it exists.
    void broadcast() {
        while (!stop_requested) {
            try {
                send_until_the_server_goes();
            } catch (const std::exception&) {
                std::this_thread::sleep_for(Milliseconds{2});
            }
        }
    }

    void send_until_the_server_goes() {
        RtmpClient publisher = connect_through_queue();
        (void)publisher.handshake();
        (void)publisher.connect_app();
        (void)publisher.publish(LIVE_STREAM);
        for (std::uint32_t i = 0; !stop_requested; ++i) {
            publisher.send_video(1, avc_inter_frame(i, 8000));
            std::this_thread::sleep_for(Milliseconds{10});
        }
    }

    std::atomic<bool> stop_requested{false};
    std::thread thread;
};

// Visitors, a broadcaster, and the lifetime of a server under this load. Only visitors that request it are
// dropped, never the broadcaster or the clients that check the service.
class Load {
  public:
    explicit Load(std::uint64_t seed)
        : random(seed), crowd({.seed = seed, .server_may_go = true, .drops_at_random = false}) {}
    ~Load() { crowd.stop(); }

    void keep_busy(const ServerProcess& server) {
        if (servers % BUSY_ONE_IN == 0 &&
            !holds_within(DEFAULT_WAIT, [&] { return server.thread_count() >= BUSY_THREADS; })) {
            throw TestFailure("nobody comes");
        }
        std::this_thread::sleep_for(Milliseconds{draw(random, LONGEST_LIFE_MS)});
        ++servers;
        most_threads = std::max(most_threads, server.thread_count());
    }
    // The largest number of threads of a server.
    std::size_t threads() const { return most_threads; }

  private:
    Random random;
    std::size_t servers = 0;
    std::size_t most_threads = 0;
    Broadcaster broadcaster;
    Crowd crowd;
};

class stop_storm_test : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(server, stop_storm_test, testing::Range(0, STORM_SHARDS));

}  // namespace

TEST_P(stop_storm_test, a_server_told_to_stop_exits_in_order_within_a_second) {
    const std::size_t stops = storm_count("V9_STORM_STOPS", 120, 40) / STORM_SHARDS;
    Load load(storm_seed() + 1000 * static_cast<std::uint64_t>(GetParam()));
    Milliseconds longest{0};
    for (std::size_t i = 0; i < stops; ++i) {
        ServerProcess server({"--dbg-pkt"});
        load.keep_busy(server);
        const Milliseconds took = server.stop();
        longest = std::max(longest, took);
        EXPECT_LE(took, STOP_LIMIT) << "stop " << i;
    }
    std::cout << stops << " stops, the longest took " << longest.count() << " ms, the busiest server had "
              << load.threads() << " threads\n";
}
