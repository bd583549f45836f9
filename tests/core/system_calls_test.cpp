// What the server requests from the system, and what it does if the system refuses.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>

#include <array>

#include "core/heap.h"
#include "core/listener.h"
#include "core/main_loop.h"
#include "core/quit_signals.h"
#include "rtmp/packet_queues.h"
#include "tests/support/assertion_line.h"
#include "tests/support/connection_fixture.h"
#include "tests/support/control_peer.h"
#include "tests/support/wrapped_calls.h"

namespace {

class system_calls_test : public ConnectionFixture {
  protected:
    system_calls_test() { wrapped_calls = {}; }
    ~system_calls_test() override { wrapped_calls = {}; }
};

using system_calls_death_test = system_calls_test;

// Runs the server for one pass of the main loop, and its shutdown.
void run_one_pass(const std::function<void()>& meanwhile = [] {}) {
    wrapped_calls.at_sleep = [&meanwhile] {
        meanwhile();
        quit_signals = 1;
    };
    EXPECT_EQ(run_server(), 0);
    quit_signals = 0;
}

// Sends a batch of queued messages, as the writer thread does.
bool send_next(RTMPConnection& conn) {
    return conn.rtmp_send_packet();
}

int connect_to_server() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(1935);
    EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return fd;
}

}  // namespace

TEST_F(system_calls_test, a_message_of_many_chunks_is_sent_in_calls_of_256_pieces) {
    RTMPConnection& conn = add_connection();
    const int large = 1 << 20;
    ASSERT_EQ(setsockopt(conn.fd, SOL_SOCKET, SO_SNDBUF, &large, sizeof large), 0);
    wrapped_calls = {};
    conn.connection_out.push_back(make_packet(9, 0, std::string(50000, 'x')));
    ASSERT_TRUE(send_next(conn));
    // 391 chunks: a header each and a slice of the payload each.
    ASSERT_EQ(wrapped_calls.sends.size(), 4U);
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(wrapped_calls.sends[i].pieces, i < 3 ? 256U : 14U);
        EXPECT_EQ(wrapped_calls.sends[i].flags, i < 3 ? MSG_NOSIGNAL | MSG_MORE : MSG_NOSIGNAL);
        bytes += wrapped_calls.sends[i].bytes;
    }
    EXPECT_EQ(bytes, 50000U + 12 + 390);
}

TEST_F(system_calls_test, all_waiting_messages_are_sent_in_one_call) {
    RTMPConnection& conn = add_connection();
    conn.connection_out.push_back(make_packet(9, 0, "first"));
    conn.connection_out.push_back(make_packet(9, 0, ""));
    conn.connection_out.push_back(make_packet(9, 0, "second"));
    ASSERT_TRUE(send_next(conn));
    ASSERT_EQ(wrapped_calls.sends.size(), 1U);
    EXPECT_EQ(wrapped_calls.sends[0].flags, MSG_NOSIGNAL);
    EXPECT_EQ(wrapped_calls.sends[0].bytes, 12U + 5 + 12 + 6);
}

TEST_F(system_calls_test, a_relayed_message_laid_out_for_the_players_chunk_size_is_two_pieces) {
    RTMPConnection& conn = add_connection();
    const RTMP_Packet pkt = make_packet(9, 0, std::string(16000, 'x'));
    OutgoingPacket outgoing;
    outgoing.copy_header_from(pkt);
    outgoing.shared = SharedPayload::lay_out(pkt.chunk, 128);
    conn.connection_out.push_back(std::move(outgoing));
    ASSERT_TRUE(send_next(conn));
    ASSERT_EQ(wrapped_calls.sends.size(), 1U);
    EXPECT_EQ(wrapped_calls.sends[0].pieces, 2U);
    EXPECT_EQ(wrapped_calls.sends[0].bytes, 12U + 16000 + 124);
}

TEST_F(system_calls_test, listener_and_clients_get_their_options) {
    ASSERT_TRUE(open_listener());
    EXPECT_EQ(wrapped_calls.backlogs, std::vector<int>{20});
    EXPECT_EQ(wrapped_calls.options,
              (std::vector<SetOption>{{SOL_SOCKET, SO_REUSEADDR, 1, 8}, {SOL_SOCKET, SO_REUSEPORT, 1, 8}}));
    wrapped_calls = {};
    const int client = connect_to_server();
    EXPECT_EQ(printed_by([] { accept_connections(); }), "Accepted connection\n");
    EXPECT_EQ(fcntl(get_connection(0)->fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(wrapped_calls.options, (std::vector<SetOption>{{IPPROTO_TCP, TCP_NODELAY, 1, 4},
                                                             {SOL_SOCKET, SO_KEEPALIVE, 1, 4},
                                                             {IPPROTO_TCP, TCP_KEEPIDLE, 60, 4},
                                                             {IPPROTO_TCP, TCP_KEEPINTVL, 10, 4},
                                                             {IPPROTO_TCP, TCP_KEEPCNT, 6, 4}}));
    server_shutdown();
    EXPECT_EQ(listen_fd, -1);
    EXPECT_EQ(get_connection(0), nullptr);
    close(client);
}

TEST_F(system_calls_test, waiting_clients_are_accepted_one_per_pass) {
    ASSERT_TRUE(open_listener());
    const int first = connect_to_server();
    const int second = connect_to_server();
    EXPECT_EQ(printed_by([] { accept_connections(); }), "Accepted connection\n");
    EXPECT_NE(get_connection(0), nullptr);
    EXPECT_EQ(get_connection(1), nullptr);
    EXPECT_EQ(printed_by([] { accept_connections(); }), "Accepted connection\n");
    EXPECT_NE(get_connection(1), nullptr);
    EXPECT_EQ(printed_by([] { accept_connections(); }), "");
    server_shutdown();
    close(first);
    close(second);
}

TEST_F(system_calls_test, a_listener_that_cannot_listen_frees_every_connection) {
    RTMPConnection& conn = add_connection();
    const std::size_t slot = conn.conn_idx;
    wrapped_calls.failing_listen = 1;
    EXPECT_EQ(printed_by([] { EXPECT_FALSE(open_listener()); }), "Cannot listen\n");
    EXPECT_EQ(listen_fd, -1);
    EXPECT_EQ(get_connection(slot), nullptr);
    EXPECT_EQ(printed_by([] { accept_connections(); }), "");
}

TEST_F(system_calls_test, a_connection_without_one_of_its_threads_is_accepted_and_dropped) {
    for (const int failing : {1, 2}) {
        ASSERT_TRUE(ensure_listener());
        wrapped_calls = {};
        wrapped_calls.failing_pthread_create = failing;
        const int client = connect_to_server();
        EXPECT_EQ(printed_by([] { accept_connections(); }),
                  "WARNING: Failure to create thread\nAccepted connection\n");
        EXPECT_EQ(get_connection(0)->thread_init, failing != 1);
        EXPECT_EQ(get_connection(0)->thread2_init, failing != 2);
        EXPECT_EQ(printed_by([] { idle_all_connections(); }),
                  "Dropping connection\nDisposing old stream ''\n");
        EXPECT_EQ(get_connection(0), nullptr);
        close(client);
        server_shutdown();
    }
}

TEST_F(system_calls_test, the_pass_that_accepts_a_connection_without_its_threads_drops_it) {
    ASSERT_TRUE(ensure_listener());
    const int client = connect_to_server();
    wrapped_calls = {};
    wrapped_calls.failing_pthread_create = 1;
    EXPECT_EQ(printed_by([] { run_one_pass(); }),
              "WARNING: Failure to create thread\nAccepted connection\nDropping connection\n"
              "Disposing old stream ''\n");
    close(client);
}

TEST_F(system_calls_test, a_pass_sleeps_ten_milliseconds_and_then_accepts_one_client) {
    ASSERT_TRUE(ensure_listener());
    const std::array<int, 2> clients{connect_to_server(), connect_to_server()};
    std::vector<bool> accepted_before_the_sleep;
    wrapped_calls.at_sleep = [&] {
        for (const std::size_t slot : {0U, 1U}) {
            accepted_before_the_sleep.push_back(get_connection(slot) != nullptr);
        }
        quit_signals = wrapped_calls.sleeps.size() == 3 ? 1 : 0;
    };
    EXPECT_EQ(printed_by([] { EXPECT_EQ(run_server(), 0); }), "Accepted connection\nAccepted connection\n");
    quit_signals = 0;
    EXPECT_THAT(accepted_before_the_sleep, testing::ElementsAre(false, false, true, false, true, true));
    EXPECT_THAT(wrapped_calls.sleeps, testing::Each(10000));
    close(clients[0]);
    close(clients[1]);
}

TEST_F(system_calls_test, a_stop_closes_the_control_socket_then_the_listener_then_each_slot_in_order) {
    std::map<int, std::size_t> slots;
    for (const char* const name : {"cam2", "cam3", "cam1"}) {
        RTMPConnection& conn = add_connection();
        conn.stream_name = name;
        stream_subscribe_for_play(name, conn.conn_idx);
        slots[conn.fd] = conn.conn_idx;
    }
    std::vector<std::string> given_up;
    wrapped_calls.at_close = [&](int fd) {
        if (fd == listen_fd) {
            given_up.emplace_back(access(CONTROL_SOCKET_PATH.c_str(), F_OK) == 0 ? "listener too early"
                                                                                 : "listener");
        } else if (slots.contains(fd)) {
            const std::size_t slot = slots[fd];
            const bool plays = !find_or_insert_stream(get_connection(slot)->stream_name).players.empty();
            given_up.push_back("slot " + std::to_string(slot) + (plays ? ", which still plays" : ""));
        }
    };
    EXPECT_EQ(printed_by([] { run_one_pass(); }),
              "Connection for play unsubscribed from 'cam2'\nConnection for play unsubscribed from 'cam3'\n"
              "Connection for play unsubscribed from 'cam1'\n");
    EXPECT_EQ(given_up, (std::vector<std::string>{"listener", "slot 0, which still plays",
                                                  "slot 1, which still plays", "slot 2, which still plays"}));
    wrapped_calls = {};
}

TEST_F(system_calls_test, a_writer_with_nothing_to_send_checks_again_after_fifty_milliseconds) {
    RTMPConnection& conn = add_connection();
    EXPECT_TRUE(send_next(conn));
    EXPECT_EQ(wrapped_calls.sleeps, std::vector<useconds_t>{50000});
}

TEST_F(system_calls_test, a_reader_checks_every_ten_milliseconds_whether_fewer_than_eight_messages_wait) {
    RTMPConnection& conn = add_connection();
    for (int i = 0; i < 7; ++i) {
        ASSERT_TRUE(conn.add_to_incoming_queue(make_packet(9, 0, "x")));
    }
    EXPECT_TRUE(wait_for_room_in_incoming_queue(conn));
    EXPECT_EQ(wrapped_calls.sleeps, std::vector<useconds_t>{});

    ASSERT_TRUE(conn.add_to_incoming_queue(make_packet(9, 0, "x")));
    wrapped_calls.at_sleep = [&conn] {
        if (wrapped_calls.sleeps.size() == 3) {
            conn.connection_in.pop_front();
        }
    };
    EXPECT_TRUE(wait_for_room_in_incoming_queue(conn));
    EXPECT_EQ(wrapped_calls.sleeps, (std::vector<useconds_t>{10000, 10000, 10000}));
}

TEST_F(system_calls_test, free_memory_is_returned_to_the_system_ten_seconds_after_the_first_client_has_left) {
    const std::uint64_t second_us = 1000000;
    const auto trims_after = [](std::uint64_t wait_us) {
        fake_clock_us += wait_us;
        give_back_free_memory();
        return wrapped_calls.malloc_trims.size();
    };
    add_connection();
    add_connection();
    const std::size_t earlier = trims_after(100 * second_us);  // what other tests have left
    EXPECT_EQ(trims_after(100 * second_us), earlier);
    wrapped_calls.malloc_trims.clear();
    (void)printed_by([] { free_connection(0); });
    EXPECT_EQ(trims_after(4 * second_us), 0U);
    (void)printed_by([] { free_connection(1); });
    EXPECT_EQ(trims_after(6 * second_us - 1), 0U);
    EXPECT_EQ(trims_after(1), 1U);
    EXPECT_EQ(trims_after(100 * second_us), 1U);
    EXPECT_EQ(wrapped_calls.malloc_trims, std::vector<std::size_t>{0});
}

TEST_F(system_calls_test, free_memory_that_is_due_is_returned_within_a_pass) {
    add_connection();
    (void)printed_by([] { free_connection(0); });
    fake_clock_us += 10000000;
    (void)printed_by([] { run_one_pass(); });
    EXPECT_EQ(wrapped_calls.malloc_trims, std::vector<std::size_t>{0});
}

TEST_F(system_calls_test, a_close_reports_what_it_could_not_do_and_continues) {
    RTMPConnection& conn = add_connection();
    wrapped_calls.stop_result = ESRCH;
    EXPECT_EQ(printed_by([&] { conn.close_connection(); }),
              "WARNING: Failure to cancel thread\nWARNING: Failure to pthread_join\n"
              "WARNING: Failure to cancel thread2\nWARNING: Failure to pthread_join2\n");
    EXPECT_FALSE(conn.thread_init || conn.thread2_init);
    EXPECT_EQ(conn.fd, -1);
}

TEST_F(system_calls_test, a_thread_that_cannot_be_joined_is_tried_again_on_every_pass) {
    RTMPConnection& conn = add_connection();
    pthread_cancel(conn.thread);
    conn.thread_died = true;
    wrapped_calls.refuse_join = true;
    for (int pass = 0; pass < 3; ++pass) {
        EXPECT_EQ(printed_by([&] { conn.idle(); }), "Thread 1 died\n");
        EXPECT_TRUE(conn.thread_init);
    }
    wrapped_calls.refuse_join = false;
    EXPECT_EQ(printed_by([&] { conn.idle(); }), "Thread 1 died\nWARNING: Thread terminated unexpectedly\n");
    EXPECT_FALSE(conn.thread_init);
}

TEST_F(system_calls_death_test, threads_that_reappear_after_they_were_joined_end_the_process) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    RTMPConnection& conn = add_connection();
    wrapped_calls.refuse_join = true;
    wrapped_calls.at_join = [&conn] {
        conn.thread_init = true;
        conn.thread2_init = true;
    };
    EXPECT_EXIT(conn.close_connection(), testing::KilledBySignal(SIGABRT),
                assertion_line("close_connection", "!thread_init"));
    wrapped_calls = {};
}
