// The precision of the sleeps of the server's threads.
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

namespace {

constexpr std::uint64_t DEFAULT_SLACK_NS = 50000;
constexpr std::uint64_t WRITER_SLACK_NS = 5000000;
constexpr std::size_t CLIENTS = 3;

using ThreadIds = std::set<pid_t>;

ThreadIds threads_of(const ServerProcess& server) {
    ThreadIds ids;
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(server.pid()) + "/task")) {
        ids.insert(std::stoi(entry.path().filename()));
    }
    return ids;
}

// The kernel shows a thread's value in /proc/TID, as for a process, and not in the task/ directory.
std::ifstream slack_file(pid_t thread) {
    return std::ifstream("/proc/" + std::to_string(thread) + "/timerslack_ns");
}

std::uint64_t slack_ns(pid_t thread) {
    std::uint64_t slack = 0;
    EXPECT_TRUE(slack_file(thread) >> slack) << "thread " << thread;
    return slack;
}

bool is_in_system_call(pid_t thread, long call) {
    long current = -1;
    std::ifstream("/proc/" + std::to_string(thread) + "/syscall") >> current;
    return current == call;
}

}  // namespace

TEST(timer_slack, is_5_ms_for_writers_and_the_default_for_readers_and_the_main_thread) {
    ServerProcess server;
    std::uint64_t readable = 0;
    if (!(slack_file(server.pid()) >> readable)) {
        GTEST_SKIP() << "the slack of another process is shown to those with CAP_SYS_NICE alone: "
                     << std::strerror(errno);
    }
    EXPECT_EQ(slack_ns(server.pid()), DEFAULT_SLACK_NS);
    std::vector<RtmpClient> clients;
    clients.push_back(handshaken_client());  // A sanitizer starts its own thread with the first threads.
    server.wait_for_line("RTMP xmit begin");
    for (std::size_t i = 2; i <= CLIENTS; ++i) {
        const ThreadIds before = threads_of(server);
        clients.push_back(handshaken_client());
        // A writer prints this after it has set its slack.
        server.err().wait_for_count("RTMP xmit begin", i);
        ThreadIds added;
        std::ranges::set_difference(threads_of(server), before, std::inserter(added, added.end()));
        ASSERT_EQ(added.size(), 2U);
        // The reader waits for data from the client.
        const auto reads = [](pid_t thread) { return is_in_system_call(thread, SYS_recvfrom); };
        ASSERT_TRUE(holds_within(DEFAULT_WAIT, [&] { return std::ranges::count_if(added, reads) == 1; }));
        for (const pid_t thread : added) {
            EXPECT_EQ(slack_ns(thread), reads(thread) ? DEFAULT_SLACK_NS : WRITER_SLACK_NS);
        }
    }
    EXPECT_EQ(slack_ns(server.pid()), DEFAULT_SLACK_NS);
}
