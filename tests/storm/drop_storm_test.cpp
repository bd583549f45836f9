// Thousands of connections that are dropped at every point of a session, in every way.
#include <gtest/gtest.h>

#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "tests/storm/accept_queue.h"
#include "tests/storm/crowd.h"
#include "tests/storm/storm_size.h"
#include "tests/support/background.h"
#include "tests/support/live_pair.h"
#include "tests/support/server_process.h"

namespace {

constexpr std::size_t SLOTS = 128;
constexpr std::size_t CONNECTIONS_OF_PAIR = 2;

// Makes send buffers as small as possible, so that a client that does not read blocks the server's writer at
// once. Applies only in the namespace of this test.
void shrink_send_buffers() {
    std::ofstream file("/proc/sys/net/ipv4/tcp_wmem");
    file << "4096 4096 4096" << std::flush;
    ASSERT_TRUE(file) << "cannot write /proc/sys/net/ipv4/tcp_wmem";
}

// Counts occurrences anywhere in the text: a thread stopped during a long dump does not end its line, so the
// next message may not begin one.
std::size_t occurrences(const std::string& text, const std::string& wanted) {
    std::size_t count = 0;
    for (std::size_t at = text.find(wanted); at != std::string::npos; at = text.find(wanted, at + 1)) {
        ++count;
    }
    return count;
}

class drop_storm_test : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(server, drop_storm_test, testing::Range(0, STORM_SHARDS));

}  // namespace

TEST_P(drop_storm_test, drops_leak_nothing_and_disturb_no_other_client) {
    const std::uint64_t seed = storm_seed() + 1000 * static_cast<std::uint64_t>(GetParam());
    const std::size_t drops = storm_count("V9_STORM_DROPS", 4000, 1200) / STORM_SHARDS;
    shrink_send_buffers();
    ServerOptions server_options;
    server_options.arguments = {"--dbg-pkt"};
    server_options.stderr_pipe_bytes = 4096;
    ServerProcess server(server_options);
    LivePair live({.stream_name = LIVE_STREAM, .interval = Milliseconds{50}, .message_bytes = 8000});
    const std::size_t threads = server.thread_count();
    const std::size_t descriptors = server.fd_count();

    std::size_t opened = 0;
    std::size_t rss_kib = 0;
    for (const int half : {0, 1}) {
        const std::size_t rss_before_kib = rss_kib;
        Random log_random(seed + 500 + static_cast<std::uint64_t>(half));
        // Reads the log with pauses, so that the server's threads wait in the middle of a line.
        Background log_reader([&] {
            linger(log_random, 200);
            server.pause_draining_stderr();
            linger(log_random, 40);
            server.resume_draining_stderr();
        });
        Crowd crowd({.seed = seed + 100 * static_cast<std::uint64_t>(half), .connections = drops / 2});
        opened += crowd.wait();
        log_reader.stop();
        wait_for_accept_queue(0);
        server.wait_for_thread_count(threads);
        // A sanitizer keeps freed memory for a while, and AddressSanitizer reports leaks at exit.
        if (TIME_SCALE == 1) {
            rss_kib = server.rss_kib_at_rest();
            std::cout << "after " << opened << " drops: " << rss_kib << " KiB resident\n";
        }
        if (half == 1 && TIME_SCALE == 1) {
            EXPECT_LE(rss_kib, rss_before_kib + ALLOWED_GROWTH_KIB);
        }
    }
    EXPECT_GE(opened, drops);
    server.wait_for_fd_count(descriptors);
    const std::string log = server.raw_text();
    EXPECT_EQ(occurrences(log, "Dropping connection\n"), opened);
    EXPECT_EQ(occurrences(log, "Accepted connection\n"), opened + CONNECTIONS_OF_PAIR);
    std::vector<RtmpClient> clients;
    const LineMark mark = server.mark();
    while (clients.size() < SLOTS - CONNECTIONS_OF_PAIR) {
        clients.push_back(connect_through_queue());
    }
    server.err().wait_for_count("Accepted connection", clients.size(), mark);
    live.finish();
}
