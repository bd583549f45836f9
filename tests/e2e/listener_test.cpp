// Accepting and refusing TCP connections.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

namespace {

using testing::UnorderedElementsAre;

constexpr std::size_t MAX_CLIENTS = 128;
const std::string REFUSAL = "Too many connections, dropping new connection";

std::vector<std::unique_ptr<RtmpClient>> fill_the_table(const ServerProcess& server) {
    std::vector<std::unique_ptr<RtmpClient>> clients;
    // Never more than fit into the backlog. Beyond it, the kernel makes a client wait a second.
    constexpr std::size_t IN_FLIGHT = 10;
    for (std::size_t i = 0; i < MAX_CLIENTS; ++i) {
        clients.push_back(std::make_unique<RtmpClient>());
        if (i > IN_FLIGHT) {
            server.err().wait_for_count("Accepted connection", i - IN_FLIGHT);
        }
    }
    server.err().wait_for_count("Accepted connection", MAX_CLIENTS);
    return clients;
}

struct KernelTimer {
    int kind = -1;   // 2: keep-alive
    long ticks = 0;  // until it fires, in units of 10 ms
};

// Returns the timer of the server's end of a connection, as the kernel reports it.
KernelTimer timer_of_server_end(const std::string& client_address) {
    const unsigned long client_port = std::stoul(client_address.substr(client_address.find(':') + 1));
    std::ifstream file("/proc/self/net/tcp");
    for (std::string line; std::getline(file, line);) {
        std::istringstream fields(line);
        std::string slot, local, remote, state, queues, timer;
        fields >> slot >> local >> remote >> state >> queues >> timer;
        if (local.ends_with(":078F") && state == "01" &&
            std::stoul(remote.substr(remote.find(':') + 1), nullptr, 16) == client_port) {
            return {std::stoi(timer.substr(0, 2), nullptr, 16), std::stol(timer.substr(3), nullptr, 16)};
        }
    }
    return {};
}

}  // namespace

TEST(listener, a_new_connection_starts_its_two_threads) {
    ServerProcess server;
    RtmpClient client;
    for (const char* line : {"Accepted connection", "RTMP begin", "RTMP xmit begin"}) {
        server.wait_for_line(line);
    }
    EXPECT_THAT(server.lines_since(),
                UnorderedElementsAre("Accepted connection", "RTMP begin", "RTMP xmit begin"));
    server.wait_for_thread_count(THREADS_AT_REST + 2);
}

TEST(listener, a_client_that_leaves_at_once_frees_its_slot_and_its_threads) {
    ServerProcess server;
    const std::size_t descriptors = server.fd_count();
    RtmpClient().close();
    const LineMark end = server.wait_for_lines({"C0 fail", "RTMP handshake failed", "Thread 1 died",
                                                "WARNING: Thread terminated unexpectedly",
                                                "Dropping connection", "Disposing old stream ''"});
    // The writer's first line may come between any of these, or never if it is cancelled first.
    const std::size_t writer_lines = server.count("RTMP xmit begin");
    EXPECT_LE(writer_lines, 1U);
    EXPECT_EQ(end, 8U + writer_lines) << "two more lines: accepted, and the reader's";
    server.wait_for_thread_count(THREADS_AT_REST);
    EXPECT_EQ(server.fd_count(), descriptors);
}

TEST(listener, the_129th_client_is_closed_at_once_and_gets_no_byte) {
    ServerProcess server;
    const std::vector<std::unique_ptr<RtmpClient>> clients = fill_the_table(server);
    EXPECT_EQ(server.count(REFUSAL), 0U);
    RtmpClient refused;
    std::vector<RtmpMessage> sent;
    EXPECT_EQ(refused.expect_closed(DEFAULT_WAIT, &sent), CloseKind::END_OF_STREAM);
    EXPECT_THROW((void)refused.read_bytes(1), std::runtime_error);
    server.wait_for_line(REFUSAL);
    EXPECT_EQ(server.count("Accepted connection"), MAX_CLIENTS);
    EXPECT_EQ(server.count(REFUSAL), 1U);
}

TEST(listener, a_freed_slot_is_used_again) {
    ServerProcess server;
    std::vector<std::unique_ptr<RtmpClient>> clients = fill_the_table(server);
    clients[5].reset();
    server.wait_for_line("Dropping connection");
    RtmpClient late = connected_client();
    EXPECT_EQ(server.count(REFUSAL), 0U);
    (void)RtmpClient().expect_closed();
    server.wait_for_line(REFUSAL);
}

TEST(listener, clients_that_connect_together_are_all_served) {
    ServerProcess server;
    // They wait in the backlog while the server is stopped, so all are there before its first pass.
    server.pause();
    std::vector<std::unique_ptr<RtmpClient>> clients;
    clients.reserve(10);
    for (int i = 0; i < 10; ++i) {
        clients.push_back(std::make_unique<RtmpClient>());
    }
    server.resume();
    for (const auto& client : clients) {
        (void)client->handshake();
        (void)client->connect_app();
    }
    EXPECT_EQ(server.count("Accepted connection"), clients.size());
}

TEST(listener, an_idle_connection_is_probed_by_keepalives) {
    ServerProcess server;
    RtmpClient client;
    server.wait_for_line("Accepted connection");
    const KernelTimer timer = timer_of_server_end(client.local_address());
    EXPECT_EQ(timer.kind, 2) << "keep-alive";
    EXPECT_GT(timer.ticks, 4000);
    EXPECT_LE(timer.ticks, 6000) << "after at most 60 s";
}

TEST(listener, a_server_serves_within_a_second_after_another_was_killed_with_clients) {
    ServerProcess killed;
    // Its socket stays with the kernel until the client closes as well.
    const RtmpClient client = connected_client();
    killed.kill();
    const TimePoint start = SteadyClock::now();
    ServerOptions options;
    options.beside_another = true;
    const ServerProcess server(options);
    (void)connected_client();
    EXPECT_LT(elapsed_since(start), scaled(Milliseconds{1000}));
}
