// A server at a real path, driven by hand, with plain sockets as its clients.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "comm_socket/clock.h"
#include "comm_socket/include/comm_socket_v4.h"
#include "tests/comm_socket/fake_clock.h"
#include "tests/comm_socket/raw_peer.h"

namespace {

class server_test : public testing::Test {
  public:
    TemporaryDirectory directory;
    std::string path = directory.file("socket");

    [[nodiscard]] static bool exists(const std::string& file) { return access(file.c_str(), F_OK) == 0; }

    // Returns this many clients, each of which has sent these bytes.
    [[nodiscard]] std::vector<RawPeer> peers_that_sent(std::size_t count, const std::string& bytes) const {
        std::vector<RawPeer> peers;
        for (std::size_t i = 0; i < count; ++i) {
            peers.emplace_back(path);
            peers.back().send_all(bytes);
        }
        return peers;
    }
};

constexpr std::size_t MEBIBYTE = 1u << 20;

int create_at(comm_socket_v4* server, const std::string& path) {
    errno = 0;
    return comm_socket_v4_create_server(server, path.c_str());
}

}  // namespace

TEST_F(server_test, answers_a_request_with_its_id) {
    DrivenServer server(path);
    const RawPeer peer(path);
    peer.send_all(request_frame(77, "hello", {"a", std::nullopt, ""}));
    server.idle();
    comm_socket_v4_client* client = nullptr;
    comm_socket_v4_packet* request = server.take(&client);
    ASSERT_NE(request, nullptr);
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(request->flags, COMM_SOCKET_V4_REQUEST);
    EXPECT_EQ(request->request_id, 77u);
    EXPECT_STREQ(comm_socket_v4_packet_get_command(request), "hello");
    EXPECT_STREQ(comm_socket_v4_packet_get_argv(request, 0), "a");
    EXPECT_EQ(comm_socket_v4_packet_get_argv(request, 1), nullptr);
    EXPECT_STREQ(comm_socket_v4_packet_get_argv(request, 2), "");
    EXPECT_EQ(comm_socket_v4_packet_get_argv(request, 3), nullptr);
    EXPECT_EQ(server.take(), nullptr);

    comm_socket_v4_packet* reply = make_reply(77, "hello", "How are you?");
    reply->status = 6;
    EXPECT_GT(comm_socket_v4_packet_send_to_client(client, reply), 0);
    EXPECT_EQ(comm_socket_v4_packet_release(reply), nullptr);
    EXPECT_EQ(comm_socket_v4_packet_release(request), nullptr);
    const std::string expected = reply_frame(77, "hello", "How are you?", {}, 6);
    EXPECT_EQ(peer.read_bytes(expected.size()), expected);
}

TEST_F(server_test, a_packet_can_be_sent_to_several_clients) {
    DrivenServer server(path);
    const RawPeer first(path);
    const RawPeer second(path);
    server.idle();
    comm_socket_v4_packet* packet = make_reply(1, "notice", "x");
    for (int i = 0; i < 2; ++i) {
        comm_socket_v4_client* client = comm_socket_v4_accept_connection(server.handle);
        ASSERT_NE(client, nullptr);
        EXPECT_GT(comm_socket_v4_packet_send_to_client(client, packet), 0);
    }
    EXPECT_EQ(comm_socket_v4_accept_connection(server.handle), nullptr);
    comm_socket_v4_packet_release(packet);
    const std::string expected = reply_frame(1, "notice", "x");
    EXPECT_EQ(first.read_bytes(expected.size()), expected);
    EXPECT_EQ(second.read_bytes(expected.size()), expected);
}

TEST_F(server_test, hands_out_a_packet_that_is_not_a_request) {
    DrivenServer server(path);
    const RawPeer peer(path);
    peer.send_all(reply_frame(5, "odd", "message", {{"a", "b"}}));
    server.idle();
    comm_socket_v4_packet* packet = server.take();
    ASSERT_NE(packet, nullptr);
    EXPECT_EQ(packet->flags & COMM_SOCKET_V4_REQUEST, 0u);
    EXPECT_STREQ(comm_socket_v4_packet_get_pair_value(packet, 0), "b");
    comm_socket_v4_packet_release(packet);
}

TEST_F(server_test, an_incomplete_packet_or_one_with_unknown_flags_is_not_sent) {
    DrivenServer server(path);
    const RawPeer peer(path);
    server.idle();
    comm_socket_v4_client* client = comm_socket_v4_accept_connection(server.handle);
    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
    EXPECT_EQ(comm_socket_v4_packet_send_to_client(client, packet), -1);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(comm_socket_v4_packet_begin_writing(packet, 0, "c", "m"), 0);
    EXPECT_EQ(comm_socket_v4_packet_send_to_client(client, packet), -1);
    ASSERT_EQ(comm_socket_v4_packet_write_end(packet), 0);
    packet->flags = 4;
    EXPECT_EQ(comm_socket_v4_packet_send_to_client(client, packet), -1);
    EXPECT_EQ(comm_socket_v4_packet_send_to_client(nullptr, packet), -1);
    EXPECT_EQ(comm_socket_v4_packet_send_to_client(client, nullptr), -1);
    packet->flags = 0;
    EXPECT_GT(comm_socket_v4_packet_send_to_client(client, packet), 0);
    comm_socket_v4_packet_release(packet);
}

TEST_F(server_test, hands_out_64_requests_between_two_idles) {
    const StoppedClock clock;
    DrivenServer server(path);
    const RawPeer peer(path);
    std::string requests;
    for (std::uint64_t id = 0; id < 150; ++id) {
        requests += request_frame(id, "hello");
    }
    peer.send_all(requests);
    for (const int expected : {64, 64, 22, 0}) {
        server.idle();
        EXPECT_EQ(server.answer_all(), expected);
        EXPECT_EQ(server.take(), nullptr);
    }
}

TEST_F(server_test, hands_out_requests_for_50_ms_and_at_least_one) {
    const StoppedClock clock;
    DrivenServer server(path);
    const RawPeer peer(path);
    std::string requests;
    for (std::uint64_t id = 0; id < 5; ++id) {
        requests += request_frame(id, "hello");
    }
    peer.send_all(requests);
    server.idle();
    const auto hand_out = [&server] {
        comm_socket_v4_packet* packet = server.take();
        const bool handed_out = packet != nullptr;
        comm_socket_v4_packet_release(packet);
        return handed_out;
    };
    EXPECT_TRUE(hand_out());
    put_clock_forward(49999);
    EXPECT_TRUE(hand_out());
    put_clock_forward(1);
    EXPECT_FALSE(hand_out());
    server.idle();
    put_clock_forward(50000);
    EXPECT_TRUE(hand_out());
    EXPECT_FALSE(hand_out());
}

TEST_F(server_test, while_64_mib_wait_one_request_is_handed_out_and_the_latest_client_is_first) {
    const StoppedClock clock;
    DrivenServer server(path);
    const std::vector<RawPeer> unread =
        peers_that_sent(5, request_frame(1, "long") + request_frame(2, "long"));
    server.idle();
    // Three times 24 MiB, less what the sockets take, exceed the limit.
    EXPECT_EQ(server.answer_all(std::string(24 * MEBIBYTE, 'm')), 3);
    const RawPeer other(path);
    other.send_all(request_frame(3, "hello"));
    server.idle();
    EXPECT_EQ(server.answer_all(), 1);
    EXPECT_EQ(other.read_bytes(8), reply_frame(3, "hello", "yes").substr(0, 8));
    for (const int expected : {1, 1, 0}) {
        server.idle();
        EXPECT_EQ(server.answer_all(std::string(24 * MEBIBYTE, 'm')), expected);
    }
}

TEST_F(server_test, clients_that_never_read_have_at_most_64_mib_and_twelve_replies_waiting) {
    constexpr std::size_t REPLY_BYTES = 6 * MEBIBYTE;
    const StoppedClock clock;
    DrivenServer server(path);
    const std::vector<RawPeer> unread = peers_that_sent(60, request_frame(1, "long"));
    int answered = 0;
    std::size_t most = 0;
    for (int round = 0; round < 60; ++round) {
        server.idle();
        answered += server.answer_all(std::string(REPLY_BYTES, 'm'));
        std::size_t waiting = 0;
        for (const RawPeer& peer : unread) {
            const std::size_t taken = peer.available_bytes();
            waiting += taken > 0 && !peer.is_hung_up() ? REPLY_BYTES - taken : 0;
        }
        most = std::max(most, waiting);
        put_clock_forward(100000);
    }
    EXPECT_EQ(answered, 60);
    EXPECT_GT(most, 64 * MEBIBYTE);
    EXPECT_LE(most, 64 * MEBIBYTE + 12 * REPLY_BYTES);
}

TEST_F(server_test, in_a_crowd_a_client_that_reads_nothing_for_a_second_is_disconnected) {
    const StoppedClock clock;
    DrivenServer server(path);
    std::vector<RawPeer> peers = peers_that_sent(4, request_frame(1, "long"));
    for (int round = 0; round < 2; ++round) {
        server.idle();
        server.answer_all(std::string(24 * MEBIBYTE, 'm'));
    }
    put_clock_forward(900000);
    EXPECT_FALSE(peers[0].read_available().empty());
    server.idle();
    put_clock_forward(99999);
    server.idle();
    EXPECT_FALSE(peers[1].is_hung_up());
    put_clock_forward(1);
    server.idle();
    EXPECT_FALSE(peers[0].is_hung_up()) << "it reads";
    EXPECT_TRUE(peers[1].is_hung_up());
    EXPECT_TRUE(peers[2].is_hung_up());
    EXPECT_TRUE(peers[3].is_hung_up());
    put_clock_forward(9000000);
    server.idle();
    EXPECT_FALSE(peers[0].is_hung_up()) << "there is no crowd any more";
}

TEST_F(server_test, a_flush_sends_a_long_reply_completely) {
    DrivenServer server(path);
    const RawPeer peer(path);
    peer.send_all(request_frame(1, "long"));
    server.idle();
    ASSERT_EQ(server.answer_all(std::string(20 * MEBIBYTE, 'm')), 1);
    std::jthread reader([&peer] { EXPECT_EQ(peer.read_bytes(20 * MEBIBYTE).size(), 20 * MEBIBYTE); });
    comm_socket_v4_flush(server.handle, comm_socket::deadline_after(10000000));
    const std::uint64_t start = comm_socket::now_us();
    comm_socket_v4_flush(server.handle, start + 10000000);
    EXPECT_LT(comm_socket::now_us() - start, 5000000u) << "nothing waits any more";
}

TEST_F(server_test, a_flush_ends_at_its_deadline_however_slowly_its_clients_read) {
    DrivenServer server(path);
    std::vector<RawPeer> peers = peers_that_sent(6, request_frame(1, "long"));
    server.idle();
    {
        const StoppedClock clock;  // six such answers may take longer than a round
        ASSERT_EQ(server.answer_all(std::string(6 * MEBIBYTE, 'm')), 6);
    }
    std::jthread reader([&peers](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            EXPECT_EQ(peers[0].read_bytes(1).size(), 1u);
        }
    });
    for (int i = 0; i < 5; ++i) {
        const std::uint64_t start = comm_socket::now_us();
        comm_socket_v4_flush(server.handle, start + 20000);
        EXPECT_GE(comm_socket::now_us() - start, 20000u);
        EXPECT_LT(comm_socket::now_us() - start, 1000000u);
    }
}

TEST_F(server_test, a_flush_after_its_deadline_returns_although_a_client_could_take_more) {
    DrivenServer server(path);
    const RawPeer peer(path);
    peer.send_all(request_frame(1, "long"));
    server.idle();
    ASSERT_EQ(server.answer_all(std::string(20 * MEBIBYTE, 'm')), 1);
    EXPECT_FALSE(peer.read_available().empty());
    comm_socket_v4_flush(server.handle, comm_socket::now_us());
    EXPECT_EQ(peer.available_bytes(), 0u);
}

TEST_F(server_test, a_flush_does_not_wait_for_a_client_that_has_disconnected) {
    DrivenServer server(path);
    RawPeer peer(path);
    peer.send_all(request_frame(1, "long"));
    server.idle();
    ASSERT_EQ(server.answer_all(std::string(20 * MEBIBYTE, 'm')), 1);
    peer.close_now();
    const std::uint64_t start = comm_socket::now_us();
    comm_socket_v4_flush(server.handle, start + 60000000);
    EXPECT_LT(comm_socket::now_us() - start, 10000000u);
}

TEST_F(server_test, clients_take_turns) {
    const StoppedClock clock;
    DrivenServer server(path);
    const RawPeer flooder(path);
    const RawPeer other(path);
    std::string flood;
    for (std::uint64_t id = 0; id < 1000; ++id) {
        flood += request_frame(id, "flood");
    }
    flooder.send_all(flood);
    for (std::uint64_t id = 0; id < 3; ++id) {
        other.send_all(request_frame(id, "other"));
    }
    server.idle();
    std::vector<std::string> order;
    for (int i = 0; i < 6; ++i) {
        comm_socket_v4_packet* request = server.take();
        ASSERT_NE(request, nullptr);
        order.emplace_back(comm_socket_v4_packet_get_command(request));
        comm_socket_v4_packet_release(request);
    }
    EXPECT_EQ(order, (std::vector<std::string>{"flood", "other", "flood", "other", "flood", "other"}));
}

TEST_F(server_test, serves_64_clients_and_closes_the_next_at_once) {
    const StoppedClock stopped;  // A round hands out for 50 ms at most.
    DrivenServer server(path);
    std::vector<RawPeer> peers;
    for (std::uint64_t id = 0; id < 64; ++id) {
        peers.emplace_back(path);
        peers.back().send_all(request_frame(id, "hello"));
    }
    const RawPeer surplus(path);
    server.idle();
    EXPECT_TRUE(surplus.is_closed());
    EXPECT_EQ(server.answer_all(), 64);
    for (const RawPeer& peer : peers) {
        EXPECT_EQ(peer.read_available().substr(0, 2), "CS");
    }
    // One leaves, and the same round has room for another.
    peers.pop_back();
    const RawPeer next(path);
    server.idle();
    EXPECT_FALSE(next.is_closed());
}

TEST_F(server_test, an_accepted_client_stays_valid_until_it_is_freed) {
    DrivenServer server(path);
    RawPeer peer(path);
    peer.send_all(request_frame(1, "hello"));
    server.idle();
    comm_socket_v4_client* client = nullptr;
    comm_socket_v4_packet* request = server.take(&client);
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(comm_socket_v4_accept_connection(server.handle), client);
    peer.close_now();
    server.idle();
    EXPECT_EQ(comm_socket_v4_get_disconnected_client(server.handle), nullptr)
        << "its request is being answered";
    comm_socket_v4_packet* reply = make_reply(1, "hello", "x");
    EXPECT_EQ(comm_socket_v4_packet_send_to_client(client, reply), -1);
    EXPECT_EQ(errno, EPIPE);
    comm_socket_v4_wait_for_server_to_client_writeable(client, UINT64_MAX);
    comm_socket_v4_packet_release(request);
    EXPECT_EQ(comm_socket_v4_get_disconnected_client(server.handle), client);
    EXPECT_EQ(comm_socket_v4_packet_send_to_client(client, reply), -1);
    comm_socket_v4_free_client(client);
    EXPECT_EQ(comm_socket_v4_get_disconnected_client(server.handle), nullptr);
    comm_socket_v4_packet_release(reply);
}

TEST_F(server_test, a_client_known_only_by_its_requests_stays_valid_until_the_idle_after_the_last_release) {
    DrivenServer server(path);
    RawPeer peer(path);
    peer.send_all(request_frame(1, "hello"));
    server.idle();
    comm_socket_v4_client* client = nullptr;
    comm_socket_v4_packet* request = server.take(&client);
    ASSERT_NE(request, nullptr);
    peer.close_now();
    server.idle();
    comm_socket_v4_packet* reply = make_reply(1, "hello", "x");
    EXPECT_EQ(comm_socket_v4_packet_send_to_client(client, reply), -1);
    comm_socket_v4_packet_release(request);
    EXPECT_EQ(comm_socket_v4_get_disconnected_client(server.handle), nullptr);
    EXPECT_EQ(comm_socket_v4_packet_send_to_client(client, reply), -1);
    EXPECT_EQ(errno, EPIPE);
    comm_socket_v4_packet_release(reply);
    server.idle();
    EXPECT_EQ(comm_socket_v4_get_disconnected_client(server.handle), nullptr) << "it was freed silently";
}

TEST_F(server_test, new_clients_wait_while_the_caller_has_4096_disconnected_clients_to_free) {
    DrivenServer server(path);
    for (int round = 0; round < 64; ++round) {
        std::vector<RawPeer> peers;
        for (int i = 0; i < 64; ++i) {
            peers.emplace_back(path);
        }
        server.idle();
        for (int i = 0; i < 64; ++i) {
            ASSERT_NE(comm_socket_v4_accept_connection(server.handle), nullptr);
        }
        peers.clear();
        server.idle();
    }
    const RawPeer newcomer(path);
    newcomer.send_all(request_frame(1, "hello"));
    server.idle();
    EXPECT_EQ(server.answer_all(), 0);
    comm_socket_v4_client* gone = comm_socket_v4_get_disconnected_client(server.handle);
    ASSERT_NE(gone, nullptr);
    server.idle();
    EXPECT_EQ(server.answer_all(), 0) << "returned is not freed";
    comm_socket_v4_free_client(gone);
    server.idle();
    EXPECT_EQ(server.answer_all(), 1);
}

TEST_F(server_test, a_request_outlives_its_freed_client) {
    DrivenServer server(path);
    const RawPeer peer(path);
    peer.send_all(request_frame(1, "hello"));
    server.idle();
    comm_socket_v4_client* client = nullptr;
    comm_socket_v4_packet* request = server.take(&client);
    comm_socket_v4_free_client(client);
    EXPECT_TRUE(peer.is_closed());
    EXPECT_STREQ(comm_socket_v4_packet_get_command(request), "hello");
    comm_socket_v4_packet_release(request);
    server.idle();
}

TEST_F(server_test, requests_sent_before_closing_are_handed_out) {
    const StoppedClock stopped;  // A round hands out for 50 ms at most.
    DrivenServer server(path);
    RawPeer peer(path);
    peer.send_all(request_frame(1, "one") + request_frame(2, "two"));
    peer.close_now();
    server.idle();
    EXPECT_NE(comm_socket_v4_accept_connection(server.handle), nullptr);
    EXPECT_EQ(comm_socket_v4_get_disconnected_client(server.handle), nullptr);
    comm_socket_v4_packet* one = server.take();
    comm_socket_v4_packet* two = server.take();
    ASSERT_NE(one, nullptr);
    ASSERT_NE(two, nullptr);
    EXPECT_STREQ(comm_socket_v4_packet_get_command(two), "two");
    comm_socket_v4_packet_release(one);
    comm_socket_v4_packet_release(two);
    EXPECT_NE(comm_socket_v4_get_disconnected_client(server.handle), nullptr);
}

TEST_F(server_test, a_client_that_closed_its_sending_side_gets_its_reply) {
    DrivenServer server(path);
    const RawPeer peer(path);
    peer.send_all(request_frame(9, "hello"));
    peer.shut_sending();
    server.idle();
    EXPECT_NE(comm_socket_v4_accept_connection(server.handle), nullptr);
    EXPECT_EQ(server.answer_all(), 1);
    const std::string expected = reply_frame(9, "hello", "yes");
    EXPECT_EQ(peer.read_bytes(expected.size()), expected);
    server.idle();
    EXPECT_TRUE(peer.is_closed());
    EXPECT_NE(comm_socket_v4_get_disconnected_client(server.handle), nullptr);
}

TEST_F(server_test, sends_shared_bytes_and_then_releases_them) {
    for (const std::size_t bytes : {std::size_t{0}, std::size_t{16383}, std::size_t{16384}, 3 * MEBIBYTE}) {
        SCOPED_TRACE(bytes);
        SharedBytes name(std::string(bytes, 'n'));
        DrivenServer server(path);
        const RawPeer peer(path);
        server.idle();
        comm_socket_v4_client* client = comm_socket_v4_accept_connection(server.handle);
        {
            const Packet reply(comm_socket_v4_packet_create());
            comm_socket_v4_packet_make_response(reply.get());
            ASSERT_EQ(comm_socket_v4_packet_begin_writing(reply.get(), 0, "list", "ok"), 0);
            for (const char* const before : {"1 ", "2 "}) {
                ASSERT_EQ(comm_socket_v4_packet_write_nv_pair_shared(reply.get(), "line", before, name.lend(),
                                                                     " end"),
                          0);
            }
            ASSERT_EQ(comm_socket_v4_packet_write_nv_pair(reply.get(), "last", "3"), 0);
            ASSERT_EQ(comm_socket_v4_packet_write_end(reply.get()), 0);
            ASSERT_EQ(comm_socket_v4_packet_send_to_client(client, reply.get()), 1);
        }
        EXPECT_EQ(name.released, bytes > MEBIBYTE ? 0 : 2) << "a long reply has not left yet";
        const std::string expected = reply_frame(
            0, "list", "ok",
            {{"line", "1 " + name.text + " end"}, {"line", "2 " + name.text + " end"}, {"last", "3"}});
        std::jthread reader([&] { EXPECT_EQ(peer.read_bytes(expected.size()), expected); });
        comm_socket_v4_flush(server.handle, comm_socket::deadline_after(10000000));
        EXPECT_EQ(name.released, 2);
    }
}

TEST_F(server_test, releases_shared_bytes_once_when_it_is_destroyed_with_two_waiting_replies) {
    SharedBytes name(std::string(3 * MEBIBYTE, 'n'));
    std::optional<DrivenServer> server(std::in_place, path);
    const std::vector<RawPeer> peers = peers_that_sent(2, request_frame(1, "list"));
    server->idle();
    Packet reply(make_reply(1, "list", ""));
    ASSERT_EQ(comm_socket_v4_packet_begin_writing(reply.get(), 0, "list", "ok"), 0);
    ASSERT_EQ(comm_socket_v4_packet_write_nv_pair_shared(reply.get(), "line", "", name.lend(), ""), 0);
    ASSERT_EQ(comm_socket_v4_packet_write_end(reply.get()), 0);
    for (std::size_t i = 0; i < peers.size(); ++i) {
        comm_socket_v4_client* client = nullptr;
        comm_socket_v4_packet* const request = server->take(&client);
        ASSERT_NE(request, nullptr);
        ASSERT_EQ(comm_socket_v4_packet_send_to_client(client, reply.get()), 1);
        comm_socket_v4_packet_release(request);
    }
    reply.reset();
    EXPECT_EQ(name.released, 0);
    server.reset();
    EXPECT_EQ(name.released, 1);
}

TEST_F(server_test, releases_shared_bytes_when_their_client_disconnects) {
    SharedBytes name(std::string(3 * MEBIBYTE, 'n'));
    DrivenServer server(path);
    RawPeer peer(path);
    server.idle();
    comm_socket_v4_client* client = comm_socket_v4_accept_connection(server.handle);
    Packet reply(make_reply(1, "list", ""));
    ASSERT_EQ(comm_socket_v4_packet_begin_writing(reply.get(), 0, "list", "ok"), 0);
    ASSERT_EQ(comm_socket_v4_packet_write_nv_pair_shared(reply.get(), "line", "", name.lend(), ""), 0);
    ASSERT_EQ(comm_socket_v4_packet_write_end(reply.get()), 0);
    ASSERT_EQ(comm_socket_v4_packet_send_to_client(client, reply.get()), 1);
    reply.reset();
    EXPECT_EQ(name.released, 0);
    peer.close_now();
    server.idle();
    EXPECT_EQ(name.released, 1);
}

TEST_F(server_test, returns_0_only_beyond_16_mib_and_then_times_out) {
    DrivenServer server(path);
    const RawPeer peer(path);
    server.idle();
    comm_socket_v4_client* client = comm_socket_v4_accept_connection(server.handle);
    comm_socket_v4_packet* reply = make_reply(1, "long", std::string(4u << 20, 'm'));
    int sent = 0;
    int result = 0;
    while ((result = comm_socket_v4_packet_send_to_client(client, reply)) > 0) {
        ++sent;
    }
    EXPECT_EQ(result, 0);
    EXPECT_EQ(sent, 5) << "one being sent, and after it 16 MiB with their headers";
    EXPECT_EQ(comm_socket_v4_packet_send_to_client(client, reply), 0) << "it stays so, and costs nothing";
    comm_socket_v4_wait_for_server_to_client_writeable(client, 0);
    EXPECT_EQ(comm_socket_v4_packet_send_to_client(client, reply), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    comm_socket_v4_packet_release(reply);
    EXPECT_EQ(comm_socket_v4_get_disconnected_client(server.handle), client);
}

TEST_F(server_test, sets_mode_0660_whatever_the_umask) {
    for (const mode_t mask : {mode_t{0}, mode_t{0022}, mode_t{0777}}) {
        const mode_t before = umask(mask);
        DrivenServer server(path);
        umask(before);
        struct stat found {};
        ASSERT_EQ(stat(path.c_str(), &found), 0);
        EXPECT_TRUE(S_ISSOCK(found.st_mode));
        EXPECT_EQ(found.st_mode & 07777, 0660u);
    }
}

TEST_F(server_test, replaces_any_socket_or_file_at_the_path) {
    {
        std::ofstream(path) << "a file";
        DrivenServer server(path);
        EXPECT_NE(RawPeer(path).fd, -1);
    }
    ASSERT_EQ(symlink("/nowhere/at/all", path.c_str()), 0);
    DrivenServer server(path);
    EXPECT_NE(RawPeer(path).fd, -1);
}

TEST_F(server_test, replaces_a_stale_socket) {
    const pid_t child = fork();
    if (child == 0) {
        comm_socket_v4* server = comm_socket_v4_create();
        _exit(comm_socket_v4_create_server(server, path.c_str()) == 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
    ASSERT_TRUE(exists(path));
    ASSERT_EQ(RawPeer(path).fd, -1);
    DrivenServer server(path);
    EXPECT_NE(RawPeer(path).fd, -1);
}

TEST_F(server_test, fails_if_it_cannot_bind_and_may_be_tried_again) {
    ASSERT_EQ(mkdir(directory.file("folder").c_str(), 0700), 0);
    comm_socket_v4* server = comm_socket_v4_create();
    const int descriptors = count_descriptors();
    EXPECT_EQ(create_at(server, directory.file("folder")), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_TRUE(exists(directory.file("folder")));
    EXPECT_EQ(create_at(server, directory.file("missing/socket")), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(create_at(server, ""), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(comm_socket_v4_create_server(server, nullptr), -1);
    EXPECT_EQ(comm_socket_v4_create_server(nullptr, path.c_str()), -1);
    EXPECT_EQ(comm_socket_v4_is_open(server), 0);
    EXPECT_EQ(comm_socket_v4_idle(server), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(count_descriptors(), descriptors);
    EXPECT_EQ(create_at(server, path), 0);
    EXPECT_EQ(create_at(server, path), -1);
    EXPECT_EQ(errno, EALREADY);
    EXPECT_NE(comm_socket_v4_is_open(server), 0);
    comm_socket_v4_destroy(server);
}

TEST_F(server_test, fails_without_the_permission_to_write_the_directory) {
    std::ofstream(path) << "a file";
    ASSERT_EQ(chmod(directory.path.c_str(), 0555), 0);
    const pid_t child = fork();
    if (child == 0) {
        if (!obey_file_modes()) {
            _exit(3);
        }
        comm_socket_v4* server = comm_socket_v4_create();
        if (comm_socket_v4_create_server(server, path.c_str()) != -1) {
            _exit(2);
        }
        _exit(errno == EACCES ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    ASSERT_EQ(chmod(directory.path.c_str(), 0755), 0);
    EXPECT_TRUE(exists(path));
}

TEST_F(server_test, takes_a_path_of_107_bytes_and_not_of_108) {
    const std::string longest = path + std::string(107 - path.size(), 'x');
    comm_socket_v4* server = comm_socket_v4_create();
    EXPECT_EQ(create_at(server, longest + "x"), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(create_at(server, longest), 0);
    EXPECT_TRUE(exists(longest));
    comm_socket_v4_destroy(server);
    EXPECT_FALSE(exists(longest));
}

TEST_F(server_test, is_lost_when_its_path_is_removed_and_still_serves_its_clients) {
    DrivenServer server(path);
    const RawPeer peer(path);
    server.idle();
    EXPECT_NE(comm_socket_v4_is_open(server.handle), 0);
    ASSERT_EQ(unlink(path.c_str()), 0);
    EXPECT_EQ(comm_socket_v4_is_open(server.handle), 0);
    peer.send_all(request_frame(1, "hello"));
    server.idle();
    EXPECT_EQ(server.answer_all(), 1);
}

TEST_F(server_test, is_lost_when_a_file_takes_its_path_and_keeps_that_file) {
    {
        DrivenServer server(path);
        ASSERT_EQ(unlink(path.c_str()), 0);
        std::ofstream(path) << "a file";
        EXPECT_EQ(comm_socket_v4_is_open(server.handle), 0);
    }
    EXPECT_TRUE(exists(path));
}

TEST_F(server_test, a_second_server_takes_the_path_and_keeps_it_when_the_first_ends) {
    auto first = std::make_unique<DrivenServer>(path);
    DrivenServer second(path);
    EXPECT_EQ(comm_socket_v4_is_open(first->handle), 0);
    EXPECT_NE(comm_socket_v4_is_open(second.handle), 0);
    first.reset();
    EXPECT_TRUE(exists(path));
    EXPECT_NE(comm_socket_v4_is_open(second.handle), 0);
    EXPECT_NE(RawPeer(path).fd, -1);
}

TEST_F(server_test, an_unusable_listening_descriptor_is_detected) {
    const int next_fd = dup(0);
    close(next_fd);
    DrivenServer server(path);  // its socket gets the lowest free descriptor, which is next_fd
    ASSERT_NE(comm_socket_v4_is_open(server.handle), 0);
    const int other = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(dup2(other, next_fd), next_fd);
    close(other);
    EXPECT_EQ(comm_socket_v4_is_open(server.handle), 0);
    EXPECT_EQ(comm_socket_v4_idle(server.handle), -1);
    EXPECT_EQ(errno, ENOTSOCK);
}

TEST_F(server_test, destroying_removes_its_own_path_and_closes_everything) {
    const int descriptors = count_descriptors();
    RawPeer peer;
    {
        DrivenServer server(path);
        peer = RawPeer(path);
        server.idle();
        EXPECT_TRUE(exists(path));
    }
    EXPECT_FALSE(exists(path));
    EXPECT_TRUE(peer.is_closed());
    peer.close_now();
    EXPECT_EQ(count_descriptors(), descriptors);
}

// A failure is found by the leak checker of the sanitizer build.
TEST_F(server_test, destroying_frees_unreleased_requests) {
    DrivenServer server(path);
    RawPeer gone(path);
    const RawPeer there(path);
    gone.send_all(request_frame(1, "never released") + request_frame(2, "never taken"));
    there.send_all(request_frame(3, "never released"));
    gone.close_now();
    server.idle();
    EXPECT_NE(server.take(), nullptr);
    EXPECT_NE(server.take(), nullptr);
    EXPECT_EQ(comm_socket_v4_get_disconnected_client(server.handle), nullptr);
}

TEST_F(server_test, destroying_frees_clients_that_were_returned_and_not_freed) {
    DrivenServer server(path);
    RawPeer peer(path);
    server.idle();
    comm_socket_v4_client* client = comm_socket_v4_accept_connection(server.handle);
    peer.close_now();
    server.idle();
    EXPECT_EQ(comm_socket_v4_get_disconnected_client(server.handle), client);
}

TEST_F(server_test, null_handles_do_nothing) {
    EXPECT_EQ(comm_socket_v4_destroy(nullptr), nullptr);
    EXPECT_EQ(comm_socket_v4_is_open(nullptr), 0);
    EXPECT_EQ(comm_socket_v4_idle(nullptr), -1);
    EXPECT_EQ(comm_socket_v4_accept_connection(nullptr), nullptr);
    EXPECT_EQ(comm_socket_v4_get_disconnected_client(nullptr), nullptr);
    comm_socket_v4_free_client(nullptr);
    comm_socket_v4_client* client = reinterpret_cast<comm_socket_v4_client*>(&path);
    EXPECT_EQ(comm_socket_v4_server_get_packet(nullptr, &client), nullptr);
    EXPECT_EQ(client, nullptr);
    comm_socket_v4_wait_for_server_to_client_writeable(nullptr, UINT64_MAX);
    comm_socket_v4_flush(nullptr, UINT64_MAX);
}
