// Quit signals under load.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/media_bytes.h"
#include "tests/support/message_recorder.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

namespace {

constexpr Milliseconds STOP_LIMIT = scaled(Milliseconds{1000});

// At most as many at a time as the kernel queues for the server. A client that finds the queue full tries
// again a second later.
constexpr std::size_t CLIENTS_AT_A_TIME = 16;

void add_clients(const ServerProcess& server, std::vector<std::unique_ptr<RtmpClient>>& clients,
                 std::size_t count) {
    while (clients.size() < count) {
        clients.push_back(std::make_unique<RtmpClient>());
        if (clients.size() % CLIENTS_AT_A_TIME == 0 || clients.size() == count) {
            server.err().wait_for_count("Accepted connection", clients.size());
        }
    }
}

}  // namespace

TEST(shutdown, a_server_with_a_full_table_stops_within_a_second) {
    ServerProcess server;
    std::vector<std::unique_ptr<RtmpClient>> clients;
    add_clients(server, clients, 128);
    EXPECT_LT(server.stop(), STOP_LIMIT);
    for (const auto& client : clients) {
        (void)client->expect_closed();
    }
}

TEST(shutdown, a_server_stops_within_a_second_while_it_relays_to_a_hundred_players) {
    ServerProcess server;
    std::vector<std::unique_ptr<RtmpClient>> players;
    add_clients(server, players, 100);
    // All at once: one after the other, they would take the sum of their reply times.
    for (const auto& player : players) {
        (void)player->handshake();
        player->send_connect("ombrex-output");
        player->send_play("cam1");
    }
    server.err().wait_for_count("Connection for play subscribed to 'cam1'", players.size());
    RtmpClient publisher = publishing_client("cam1");
    for (std::uint32_t i = 0; i < 20; ++i) {
        publisher.send_video(1000 + 20 * i, avc_inter_frame(i, 20000));
    }
    // In the middle of the stream: the first players already have media, and none has all of it.
    server.wait_for_line("From publisher to connection: source timebase 1000, add 0");
    EXPECT_LT(server.stop(), STOP_LIMIT);
    for (const auto& player : players) {
        (void)player->expect_closed();
    }
}

TEST(shutdown, a_server_stops_at_any_moment_of_a_stream) {
    for (const Milliseconds moment :
         {Milliseconds{0}, Milliseconds{13}, Milliseconds{57}, Milliseconds{101}}) {
        for (const int signal_number : {SIGTERM, SIGINT, SIGQUIT}) {
            ServerProcess server;
            RtmpClient player = playing_client("cam1");
            RtmpClient publisher = publishing_client("cam1");
            for (std::uint32_t i = 0; i < 50; ++i) {
                publisher.send_video(1000 + 10 * i, avc_inter_frame(i, 10000));
            }
            (void)player.expect_message(MSG_VIDEO);
            std::this_thread::sleep_for(moment);
            const TimePoint start = SteadyClock::now();
            server.send_signal(signal_number);
            EXPECT_EQ(server.wait_for_exit().status, 0);
            EXPECT_LT(elapsed_since(start), STOP_LIMIT);
        }
    }
}

TEST(shutdown, players_that_do_not_read_do_not_delay_the_stop) {
    ServerProcess server;
    ClientOptions small_buffer;
    small_buffer.receive_buffer_bytes = 4096;
    std::vector<std::unique_ptr<RtmpClient>> players;
    for (std::size_t i = 0; i < 10; ++i) {
        players.push_back(std::make_unique<RtmpClient>(playing_client("cam1", small_buffer)));
    }
    RtmpClient witness = playing_client("cam1");
    RtmpClient publisher = publishing_client("cam1");
    publisher.set_chunk_size(65536);
    MessageRecorder recorder(witness);
    for (std::uint32_t i = 0; i < 12; ++i) {
        publisher.send_video(1000, avc_inter_frame(i, 1000000));
    }
    // More than any socket buffers, so every writer thread except the witness's is blocked in a send.
    recorder.wait_for(12);
    EXPECT_LT(server.stop(), STOP_LIMIT);
}

TEST(shutdown, a_held_publisher_does_not_delay_the_stop) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    publisher.send_audio(1000, aac_frame(1));
    for (std::uint32_t i = 0; i < 20; ++i) {
        publisher.send_audio(3600000, aac_frame(2));
    }
    server.wait_for_line("Lock on audio type 10");
    EXPECT_LT(server.stop(), STOP_LIMIT);
}

TEST(shutdown, a_server_that_waits_for_its_log_reader_stops_in_order_once_it_is_read_again) {
    ServerOptions options;
    options.stderr_pipe_bytes = 4096;
    ServerProcess server(options);
    server.pause_draining_stderr();
    RtmpClient client = handshaken_client();
    client.send_command(amf_string("connect") + amf_number(1) +
                        amf_object({{"long", amf_long_string(std::string(300000, 'x'))}}));
    ASSERT_TRUE(holds_within(DEFAULT_WAIT, [&] { return server.main_thread_writes_to_stderr(); }))
        << "the server does not hang in its log";
    EXPECT_LT(server.stop(), STOP_LIMIT);
    EXPECT_EQ(server.count("rejected app "), 1U);
    EXPECT_NE(server.raw_text().find(std::string(300000, 'x')), std::string::npos);
}
