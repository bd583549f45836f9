// How connections end, and that their slots, threads and descriptors are freed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/media_bytes.h"
#include "tests/support/message_recorder.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

namespace {

using testing::IsEmpty;

constexpr std::size_t MAX_CLIENTS = 128;
const std::string REFUSAL = "Too many connections, dropping new connection";

using Clients = std::vector<std::unique_ptr<RtmpClient>>;

// At most as many at a time as the kernel queues for the server. A client that finds the queue full tries
// again a second later.
constexpr std::size_t CLIENTS_AT_A_TIME = 16;

void add_clients(const ServerProcess& server, Clients& clients, std::size_t count) {
    const LineMark mark = server.mark();
    for (std::size_t i = 0; i < count; ++i) {
        clients.push_back(std::make_unique<RtmpClient>());
        if ((i + 1) % CLIENTS_AT_A_TIME == 0 || i + 1 == count) {
            server.err().wait_for_count("Accepted connection", i + 1, mark);
        }
    }
}

// A thread stack size that no system can provide. ThreadSanitizer does not start with more than this.
#ifdef __SANITIZE_THREAD__
constexpr unsigned long IMPOSSIBLE_STACK = 1UL << 38;
#else
constexpr unsigned long IMPOSSIBLE_STACK = 100UL << 40;
#endif

}  // namespace

TEST(connection_table, every_slot_comes_back) {
    ServerProcess server;
    RtmpClient bystander = connected_client();
    const std::size_t threads = server.thread_count();
    const std::size_t descriptors = server.fd_count();
    for (int round = 1; round <= 2; ++round) {
        const LineMark mark = server.mark();
        Clients clients;
        add_clients(server, clients, MAX_CLIENTS - 1);
        EXPECT_EQ(server.thread_count(), threads + 2 * clients.size());
        EXPECT_EQ(server.fd_count(), descriptors + clients.size());
        (void)RtmpClient().expect_closed();
        server.wait_for_line(REFUSAL, mark);
        clients.clear();
        server.wait_for_thread_count(threads);
        server.wait_for_fd_count(descriptors);
        EXPECT_EQ(server.count("Dropping connection", mark), MAX_CLIENTS - 1);
        EXPECT_EQ(server.count(REFUSAL, mark), 1U);
    }
    EXPECT_THAT(bystander.round_trip(), IsEmpty());
}

TEST(connection_table, a_full_table_accepts_as_many_clients_as_have_left) {
    ServerProcess server;
    Clients clients;
    add_clients(server, clients, MAX_CLIENTS);
    const std::size_t full_threads = server.thread_count();
    for (const std::size_t leaving : {0U, 5U, 64U, 126U, 127U}) {
        clients[leaving].reset();
    }
    server.wait_for_thread_count(full_threads - 2 * 5);
    Clients more;
    add_clients(server, more, 5);
    EXPECT_EQ(server.count(REFUSAL), 0U);
    (void)RtmpClient().expect_closed();
    server.wait_for_line(REFUSAL);
    // The clients that stayed are unaffected.
    for (RtmpClient* client : {more.back().get(), clients[6].get()}) {
        (void)client->handshake();
        (void)client->connect_app();
    }
}

TEST(connection_table, a_full_table_keeps_serving) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    Clients clients;
    add_clients(server, clients, MAX_CLIENTS - 2);
    for (int i = 0; i < 30; ++i) {
        (void)RtmpClient().expect_closed();
    }
    publisher.send_audio(1000, aac_frame(1));
    EXPECT_EQ(player.expect_message(MSG_AUDIO).payload, aac_frame(1));
    EXPECT_EQ(server.count(REFUSAL), 30U);
}

TEST(connection_table, commands_sent_just_before_leaving_are_executed) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    client.send_connect();
    client.send_publish("cam1");
    client.close();
    server.wait_for_lines(
        {"accepted app ombrex-live", "Connection is publishing 'cam1'", "Dropping connection"});
}

TEST(connection_table, a_publisher_that_left_is_kept_until_its_held_media_is_sent) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    MessageRecorder recorder(player);
    RtmpClient publisher = publishing_client("cam1");
    const std::size_t threads = server.thread_count();
    const TimePoint start = SteadyClock::now();
    for (std::uint32_t i = 0; i < 6; ++i) {
        publisher.send_audio(1000 + 300 * i, aac_frame(i));
    }
    // Half-closed only: after a close, its host would answer the next acknowledgement with a reset.
    publisher.half_close();
    const LineMark reader_ended =
        server.wait_for_consecutive_lines({"Thread 1 died", "WARNING: Thread terminated unexpectedly"});
    EXPECT_EQ(server.count("Dropping connection"), 0U);
    EXPECT_LT(elapsed_since(start), Milliseconds{1500});
    server.wait_for_thread_count(threads - 1);
    server.wait_for_line("Dropping connection", reader_ended);
    EXPECT_GE(elapsed_since(start), Milliseconds{1500});
    recorder.wait_for(6);
    server.wait_for_thread_count(threads - 2);
    const std::vector<RtmpMessage> messages = recorder.messages();
    for (std::uint32_t i = 0; i < 6; ++i) {
        EXPECT_EQ(messages[i].payload, aac_frame(i));
    }
}

TEST(connection_table, a_writer_that_cannot_send_ends_alone_while_media_is_held) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_audio(1, aac_frame(1));
    (void)publisher.round_trip();
    const std::size_t threads = server.thread_count();
    const LineMark mark = server.mark();
    // So much is held that the reader waits and does not read the socket, which is reset before the writer
    // sends its acknowledgements.
    server.pause();
    for (std::uint32_t i = 0; i < 12; ++i) {
        publisher.send_audio(3600001, aac_frame(i));
    }
    publisher.close_with_reset();
    server.resume();
    server.wait_for_consecutive_lines({"Thread 2 died", "WARNING: Thread2 terminated unexpectedly"}, mark);
    server.wait_for_thread_count(threads - 1);
    // Other clients are served, and the held media keeps the connection.
    RtmpClient other = connected_client();
    EXPECT_THAT(other.round_trip(), IsEmpty());
    EXPECT_EQ(server.count("Thread 2 died"), 1U);
    EXPECT_EQ(server.count("Thread 1 died"), 0U);
    EXPECT_EQ(server.count("Dropping connection"), 0U);
}

TEST(connection_table, connections_without_threads_are_accepted_and_dropped_at_once) {
    ServerOptions options;
    options.limits = {{RLIMIT_STACK, IMPOSSIBLE_STACK}};
    ServerProcess server(options);
    const std::size_t descriptors = server.fd_count();
    for (int i = 0; i < 3; ++i) {
        const LineMark mark = server.mark();
        RtmpClient client;
        (void)client.expect_closed();
        server.wait_for_consecutive_lines(
            {"WARNING: Failure to create thread", "WARNING: Failure to create thread", "Accepted connection",
             "Dropping connection", "Disposing old stream ''"},
            mark);
    }
    server.wait_for_fd_count(descriptors);
}

TEST(connection_table, a_client_that_resets_is_dropped_like_one_that_closes) {
    ServerProcess server;
    RtmpClient bystander = connected_client();
    const std::size_t threads = server.thread_count();
    const LineMark mark = server.mark();
    RtmpClient player = playing_client("cam1");
    player.close_with_reset();
    server.wait_for_lines({"Thread 1 died", "WARNING: Thread terminated unexpectedly", "Dropping connection",
                           "Connection for play unsubscribed from 'cam1'"},
                          mark);
    server.wait_for_thread_count(threads);
}

TEST(connection_table, a_client_that_only_stops_sending_is_dropped_as_well) {
    ServerProcess server;
    RtmpClient player = playing_client("cam1");
    player.half_close();
    player.expect_closed_without_answer();
    server.wait_for_lines(
        {"Thread 1 died", "WARNING: Thread terminated unexpectedly", "Dropping connection"});
}
