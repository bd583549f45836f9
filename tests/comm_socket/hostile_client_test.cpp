// A broken or hostile client loses its own connection; a well-behaved client next to it loses nothing.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "comm_socket/include/comm_socket_v4.h"
#include "tests/comm_socket/fake_clock.h"
#include "tests/comm_socket/raw_peer.h"

namespace {

class hostile_client_test : public testing::Test {
  public:
    // A round hands out for 50 ms at most, and a busy machine may need that long for fewer clients
    // than these.
    StoppedClock stopped;
    TemporaryDirectory directory;
    DrivenServer server{directory.file("socket")};
    RawPeer good{server.path};
    std::uint64_t last_id = 0;

    // Makes one pass of a server's loop, in its usual order.
    void serve() const {
        server.idle();
        comm_socket_v4_accept_connection(server.handle);
        comm_socket_v4_free_client(comm_socket_v4_get_disconnected_client(server.handle));
        server.answer_all();
    }
    // The well-behaved client gets its answer in one pass.
    void expect_good_is_served() {
        const std::string expected = reply_frame(++last_id, "hello", "yes");
        good.send_all(request_frame(last_id, "hello"));
        serve();
        EXPECT_EQ(good.read_bytes(expected.size()), expected);
    }
};

std::string arguments_frame(std::size_t count) {
    return request_frame(1, "x", Arguments(count));
}

}  // namespace

TEST_F(hostile_client_test, a_broken_frame_ends_the_connection) {
    const struct {
        const char* what;
        std::string bytes;
    } rows[] = {
        {"text", "hello\n"},
        {"a request of another protocol", "GET / HTTP/1.1\r\n\r\n"},
        {"version 3", frame_around(frame_body(1, 1, 0, "hello", "", {}, {}), 3)},
        {"version 5", frame_around(frame_body(1, 1, 0, "hello", "", {}, {}), 5)},
        {"above 2 MiB", std::string("CS\4\0", 4) + be32(2097153)},
        {"a body too short", frame_around("short")},
        {"65 arguments", arguments_frame(65)},
        {"65 pairs", frame_around(frame_body(1, 1, 0, "x", "", {}, Pairs(65)))},
        {"unknown flags", frame_around(frame_body(5, 1, 0, "x", "", {}, {}))},
        {"bytes left over", frame_around(frame_body(1, 1, 0, "x", "", {}, {}) + "surplus")},
        {"a string beyond the end",
         frame_around(be32(1) + be64(1) + be64(0) + be32(1000) + std::string(20, 'x'))},
        {"only zeros", std::string(4096, '\0')},
    };
    for (const auto& row : rows) {
        const RawPeer hostile(server.path);
        hostile.send_all(row.bytes);
        expect_good_is_served();
        EXPECT_TRUE(hostile.is_closed()) << row.what;
    }
}

TEST_F(hostile_client_test, requests_at_the_limits_are_served) {
    for (const std::string& bytes :
         {arguments_frame(64), frame_around(frame_body(1, 1, 0, "x", "", {}, Pairs(64)))}) {
        const RawPeer peer(server.path);
        peer.send_all(bytes);
        expect_good_is_served();
        EXPECT_EQ(peer.read_bytes(2), "CS");
    }
}

TEST_F(hostile_client_test, a_request_of_2_mib_is_served) {
    const RawPeer peer(server.path);
    const std::string frame = request_frame(1, std::string(2097152 - 36, 'c'));
    ASSERT_EQ(frame.size(), 2097152u + 8);
    std::size_t sent = 0;
    std::size_t answer = 0;
    ASSERT_TRUE(eventually([&] {
        sent += peer.send_some(frame.substr(sent, 100000));
        serve();
        answer += peer.read_available().size();
        return answer == frame.size() + 3;  // the command comes back, with "yes"
    }));
    EXPECT_EQ(sent, frame.size());
    expect_good_is_served();
}

TEST_F(hostile_client_test, garbage_after_a_valid_request_ends_the_connection_after_the_reply) {
    const RawPeer hostile(server.path);
    hostile.send_all(request_frame(1, "hello") + "garbage");
    serve();
    const std::string expected = reply_frame(1, "hello", "yes");
    EXPECT_EQ(hostile.read_bytes(expected.size()), expected);
    expect_good_is_served();
    EXPECT_TRUE(hostile.is_closed());
}

TEST_F(hostile_client_test, disconnecting_at_any_byte_is_harmless) {
    const std::string frame = request_frame(1, "hello", {"argument", std::nullopt});
    for (std::size_t length = 0; length <= frame.size(); ++length) {
        RawPeer hostile(server.path);
        hostile.send_all(frame.substr(0, length));
        if (length % 2 == 0) {
            serve();
        }
        hostile.close_now();
        serve();
    }
    expect_good_is_served();
    while (comm_socket_v4_client* client = comm_socket_v4_get_disconnected_client(server.handle)) {
        comm_socket_v4_free_client(client);
    }
}

TEST_F(hostile_client_test, half_a_frame_and_ten_seconds_of_silence_end_the_connection) {
    const RawPeer hostile(server.path);
    hostile.send_all(request_frame(1, "hello").substr(0, 30));
    expect_good_is_served();
    EXPECT_FALSE(hostile.is_closed());
    put_clock_forward(COMM_SOCKET_V4_CLIENT_TIMEOUT_US);
    expect_good_is_served();
    EXPECT_TRUE(hostile.is_closed());
}

TEST_F(hostile_client_test, a_client_that_sends_ten_thousand_requests_and_reads_nothing_delays_no_other) {
    const RawPeer hostile(server.path);
    const std::string request = request_frame(1, "hello");
    std::string flood;
    for (int i = 0; i < 10000; ++i) {
        flood += request;
    }
    std::size_t sent = 0;
    auto slowest = std::chrono::steady_clock::duration::zero();
    for (int pass = 0; pass < 400; ++pass) {
        sent += hostile.send_some(flood.substr(sent));
        const auto start = std::chrono::steady_clock::now();
        expect_good_is_served();
        slowest = std::max(slowest, std::chrono::steady_clock::now() - start);
    }
    EXPECT_EQ(sent, flood.size()) << "the replies fit the queue, so all requests were taken";
    EXPECT_LT(slowest, std::chrono::milliseconds(200));
}

TEST_F(hostile_client_test, a_client_that_reads_none_of_many_long_replies_is_disconnected) {
    const RawPeer hostile(server.path);
    std::string flood;
    for (int i = 0; i < 100; ++i) {
        flood += request_frame(1, "long");
    }
    hostile.send_all(flood);
    const std::string four_megabytes(4u << 20, 'm');
    int answered = 0;
    for (int pass = 0; pass < 10; ++pass) {
        server.idle();
        answered += server.answer_all(four_megabytes);  // fails the test if a reply is not accepted at once
    }
    EXPECT_EQ(answered, 5) << "one being sent, 16 MiB with their headers after it, and no further request";
    expect_good_is_served();
    EXPECT_FALSE(hostile.read_available().empty()) << "it is still connected";
    // What it has read makes room for a little more; then nothing more is sent.
    ASSERT_TRUE(eventually([this, &hostile] {
        put_clock_forward(COMM_SOCKET_V4_CLIENT_TIMEOUT_US);
        expect_good_is_served();
        return hostile.is_hung_up();
    }));
}

TEST_F(hostile_client_test, many_short_connections_leak_nothing) {
    expect_good_is_served();
    const int descriptors = count_descriptors();
    for (int round = 0; round < 50; ++round) {
        std::vector<RawPeer> peers;
        for (int i = 0; i < 100; ++i) {
            peers.emplace_back(server.path);
        }
        for (const RawPeer& peer : peers) {
            (void)peer.send_some(round % 2 == 0 ? "garbage" : "CS");
        }
        peers.clear();
        serve();
    }
    server.idle();
    EXPECT_EQ(count_descriptors(), descriptors);
    expect_good_is_served();
}

TEST_F(hostile_client_test, clients_that_ask_and_leave_do_not_lock_out_others) {
    constexpr int ROUNDS = 100;
    constexpr std::size_t CLIENTS = 50;
    const StoppedClock clock;  // on a busy machine 50 answers take longer than a round
    const std::string answer = reply_frame(1, "hello", "yes");
    for (int round = 0; round < ROUNDS; ++round) {
        std::vector<RawPeer> peers;
        for (std::size_t i = 0; i < CLIENTS; ++i) {
            peers.emplace_back(server.path);
            peers.back().send_all(request_frame(1, "hello"));
        }
        serve();
        for (const RawPeer& peer : peers) {
            ASSERT_EQ(peer.read_available(), answer) << "in round " << round;
        }
    }
}

TEST_F(hostile_client_test, disconnected_clients_with_waiting_requests_take_no_place_and_no_turns) {
    constexpr int LEAVERS = 100;
    constexpr int REQUESTS = 10;
    const StoppedClock clock;
    expect_good_is_served();
    int expected = 0;
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < LEAVERS; ++i) {
            const RawPeer leaver(server.path);
            for (std::uint64_t id = 0; id < REQUESTS; ++id) {
                leaver.send_all(request_frame(id, "left"));
            }
            expected += REQUESTS;
        }
        const RawPeer newcomer(server.path);
        newcomer.send_all(request_frame(1, "hello"));
        server.idle();
        expected -= server.answer_all() - 1;
        EXPECT_EQ(newcomer.read_available(), reply_frame(1, "hello", "yes"));
    }
    while (expected > 0) {
        server.idle();
        const int answered = server.answer_all();
        ASSERT_GT(answered, 0) << expected;
        expected -= answered;
    }
    EXPECT_EQ(expected, 0);
}

TEST_F(hostile_client_test, a_disconnected_client_with_more_requests_than_are_read_ahead_takes_no_place) {
    const StoppedClock clock;
    std::string requests;
    while (requests.size() < 300000) {
        requests += request_frame(1, std::string(10000, 'c'));
    }
    const auto leave = [&] {
        const RawPeer leaver(server.path);
        const int buffer_bytes = 1 << 20;
        ASSERT_EQ(setsockopt(leaver.fd, SOL_SOCKET, SO_SNDBUF, &buffer_bytes, sizeof buffer_bytes), 0);
        leaver.send_all(requests);
    };
    for (int i = 0; i < 31; ++i) {
        leave();
    }
    server.idle();
    for (int i = 0; i < 32; ++i) {
        leave();
    }
    server.idle();
    server.idle();
    server.idle();
    const RawPeer newcomer(server.path);
    const RawPeer another(server.path);
    server.idle();
    EXPECT_FALSE(newcomer.is_closed());
    EXPECT_FALSE(another.is_closed());
}

TEST_F(hostile_client_test, beyond_the_limits_the_largest_requests_of_disconnected_clients_are_discarded) {
    const StoppedClock clock;
    server.idle();  // accepts the well-behaved client
    std::string requests;
    while (requests.size() < 150000) {
        requests += request_frame(1, "many", {std::string(10000, 'a')});
    }
    const auto count_of = [this](const std::string& command) {
        std::size_t count = 0;
        server.idle();
        for (std::size_t handed_out = 1; handed_out > 0;) {
            handed_out = 0;
            while (comm_socket_v4_packet* packet = server.take()) {
                count += comm_socket_v4_packet_get_command(packet) == command ? 1U : 0U;
                comm_socket_v4_packet_release(packet);
                ++handed_out;
            }
            server.idle();
        }
        return count;
    };
    for (int i = 0; i < 130; ++i) {
        RawPeer(server.path).send_all(i == 0 ? request_frame(1, "single") : requests);
        if (i % 30 == 0) {
            server.idle();
        }
    }
    EXPECT_EQ(count_of("single"), 1U);
    for (int i = 0; i < 1100; ++i) {
        RawPeer(server.path).send_all(request_frame(1, "single"));
        if (i % 60 == 0) {
            server.idle();
        }
    }
    server.idle();
    EXPECT_EQ(count_of("single"), 1024U);
}

TEST_F(hostile_client_test, sixty_clients_that_send_long_requests_do_not_delay_a_short_one) {
    const StoppedClock clock;
    const std::string long_request = request_frame(1, std::string(2000000, 'c'));
    std::vector<RawPeer> senders;
    std::vector<std::size_t> sent(60, 0);
    for (std::size_t i = 0; i < sent.size(); ++i) {
        senders.emplace_back(server.path);
    }
    const auto send_on = [&] {
        for (std::size_t i = 0; i < sent.size(); ++i) {
            sent[i] += senders[i].send_some(std::string_view(long_request).substr(sent[i]));
            sent[i] %= long_request.size();
            (void)senders[i].read_available();
        }
    };
    const std::string answer = reply_frame(1, "hello", "yes");
    for (int request = 0; request < 20; ++request) {
        good.send_all(request_frame(1, "hello"));
        int rounds = 0;
        for (std::string received; received != answer; ++rounds) {
            ASSERT_LT(rounds, 10);
            send_on();
            serve();
            received += good.read_available();
        }
        EXPECT_LE(rounds, 2) << "at request " << request;
    }
}

TEST_F(hostile_client_test, random_changes_to_a_valid_request_never_disturb_other_clients) {
    std::srand(1);
    const std::string good_frame = request_frame(1, "hello", {"argument", std::nullopt, ""});
    for (int round = 0; round < 300; ++round) {
        std::string frame = good_frame;
        for (int change = 0; change < 3; ++change) {
            frame[static_cast<std::size_t>(std::rand()) % frame.size()] = static_cast<char>(std::rand());
        }
        const RawPeer hostile(server.path);
        hostile.send_all(frame);
        serve();
    }
    expect_good_is_served();
}
