// The server's end of a connection over a socket pair, without a server around it.
#include "comm_socket/client_link.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <thread>

#include "comm_socket/clock.h"
#include "tests/comm_socket/fake_clock.h"
#include "tests/comm_socket/raw_peer.h"

using comm_socket::ClientLink;
using comm_socket::FrameHead;
using comm_socket::FrameText;
using comm_socket::OutgoingFrame;

namespace {

constexpr std::size_t PLENTY = 1u << 30;
constexpr std::uint64_t TIMEOUT_US = COMM_SOCKET_V4_CLIENT_TIMEOUT_US;
constexpr std::size_t MEBIBYTE = 1u << 20;

class client_link_test : public testing::Test {
  public:
    client_link_test() {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        link = std::make_unique<ClientLink>(fds[0]);
        peer = RawPeer(fds[1]);
    }
    void read() const {
        std::size_t budget = PLENTY;
        link->read_some(comm_socket::now_us(), &budget);
    }
    void write() const {
        std::size_t budget = PLENTY;
        link->write_some(comm_socket::now_us(), TIMEOUT_US, &budget);
    }
    // Queues a long frame, more than the socket holds, and then frames of 1 MiB until the limit refuses
    // another one. Returns the number of 1 MiB frames.
    [[nodiscard]] int fill(std::size_t long_frame_bytes = 4 * MEBIBYTE) const {
        link->queue(OutgoingFrame(std::string(long_frame_bytes, 'a')));
        int count = 0;
        for (; link->can_queue() && link->send_error() == 0; ++count) {
            link->queue(OutgoingFrame(std::string(MEBIBYTE, 'r')));
        }
        return count;
    }
    std::unique_ptr<ClientLink> link;
    RawPeer peer;
};

}  // namespace

TEST_F(client_link_test, reads_requests_that_come_byte_by_byte) {
    for (const char byte : request_frame(1, "hello") + request_frame(2, "list", {"play"})) {
        ASSERT_FALSE(link->has_request() && link->send_error() != 0);
        peer.send_all(std::string(1, byte));
        read();
    }
    FrameHead head;
    FrameText text;
    ASSERT_TRUE(link->has_request());
    ASSERT_TRUE(link->take_request(&head, &text));
    EXPECT_EQ(text.command, "hello");
    ASSERT_TRUE(link->has_request());
    ASSERT_TRUE(link->take_request(&head, &text));
    EXPECT_EQ(head.request_id, 2u);
    EXPECT_EQ(text.arguments, (Arguments{"play"}));
    EXPECT_FALSE(link->has_request());
    EXPECT_TRUE(link->is_open());
}

TEST_F(client_link_test, writes_all_of_a_reply_to_a_peer_that_reads_byte_by_byte) {
    std::string sent;
    for (int i = 0; i < 300; ++i) {
        const std::string frame = reply_frame(static_cast<std::uint64_t>(i), "hello", "How are you?");
        link->queue(OutgoingFrame(std::string(frame)));
        sent += frame;
    }
    std::string received;
    while (received.size() < sent.size()) {
        received += peer.read_bytes(1);
        write();
        ASSERT_TRUE(link->is_open());
    }
    EXPECT_EQ(received, sent);
}

TEST_F(client_link_test, a_long_reply_is_sent_as_the_peer_reads) {
    std::string frame(5 * MEBIBYTE, '\0');
    for (std::size_t i = 0; i < frame.size(); ++i) {
        frame[i] = static_cast<char>(i * 7 + i / 256);
    }
    link->queue(OutgoingFrame(std::string(frame)));
    EXPECT_EQ(link->send_error(), 0);
    std::string received;
    while (received.size() < frame.size()) {
        const std::string part = peer.read_available();
        ASSERT_FALSE(part.empty());
        received += part;
        write();
    }
    EXPECT_EQ(received, frame);
}

TEST_F(client_link_test, reads_and_writes_no_more_than_its_budget_and_reduces_it) {
    EXPECT_EQ(fill(), 17);
    EXPECT_FALSE(peer.read_available().empty());
    std::size_t budget = 1500;
    for (const std::size_t expected : {1500u, 0u}) {
        link->write_some(comm_socket::now_us(), TIMEOUT_US, &budget);
        EXPECT_EQ(peer.read_available().size(), expected);
        EXPECT_EQ(budget, 0u);
    }
    peer.send_all(request_frame(1, std::string(2000, 'c')));
    budget = 1500;
    link->read_some(comm_socket::now_us(), &budget);
    EXPECT_EQ(budget, 0u);
    EXPECT_TRUE(peer.has_unread_bytes());
    EXPECT_FALSE(link->has_complete_frame());
}

TEST_F(client_link_test, queues_16_mib_after_the_reply_being_sent_and_then_refuses) {
    link->queue(OutgoingFrame(std::string(100 * MEBIBYTE, 'a')));  // being sent; its size does not count
    for (int i = 0; i < 16; ++i) {
        ASSERT_TRUE(link->can_queue()) << i;
        link->queue(OutgoingFrame(std::string(MEBIBYTE, 'b')));
    }
    ASSERT_TRUE(link->can_queue()) << "exactly 16 MiB wait";
    link->queue(OutgoingFrame("c"));
    EXPECT_FALSE(link->can_queue());
    EXPECT_EQ(link->send_error(), 0);
}

TEST_F(client_link_test, a_client_with_too_many_waiting_bytes_hands_out_no_requests) {
    EXPECT_EQ(fill(), 17);  // 16 MiB, and one more
    peer.send_all(request_frame(1, "hello"));
    read();
    EXPECT_TRUE(link->has_complete_frame());
    EXPECT_FALSE(link->has_request());
    while (!link->can_queue()) {
        ASSERT_FALSE(peer.read_available().empty());
        write();
    }
    EXPECT_TRUE(link->has_request());
}

TEST_F(client_link_test, waiting_ends_as_soon_as_there_is_room) {
    EXPECT_EQ(fill(), 17);
    std::thread reader([this] { EXPECT_EQ(peer.read_bytes(4 * MEBIBYTE).size(), 4 * MEBIBYTE); });
    const std::uint64_t start = comm_socket::now_us();
    link->wait_until_writable(start + 60000000);
    EXPECT_LT(comm_socket::now_us() - start, 10000000u);
    EXPECT_TRUE(link->can_queue());
    EXPECT_EQ(link->send_error(), 0);
    reader.join();
}

TEST_F(client_link_test, waiting_without_any_progress_ends_the_connection) {
    EXPECT_EQ(fill(), 17);
    const std::uint64_t start = comm_socket::now_us();
    link->wait_until_writable(start + 50000);
    EXPECT_GE(comm_socket::now_us() - start, 50000u);
    EXPECT_EQ(link->send_error(), ETIMEDOUT);
    EXPECT_FALSE(link->is_open());
}

TEST_F(client_link_test, waiting_with_some_progress_keeps_the_connection) {
    EXPECT_EQ(fill(64 * MEBIBYTE), 17);
    // Reads all that the socket holds, so that a little more can be sent, but not enough to make room.
    EXPECT_FALSE(peer.read_available().empty());
    link->wait_until_writable(comm_socket::now_us() + 50000);
    EXPECT_EQ(link->send_error(), 0);
    EXPECT_FALSE(link->can_queue());
}

TEST_F(client_link_test, waiting_ends_when_the_peer_disconnects) {
    EXPECT_EQ(fill(), 17);
    peer.close_now();
    link->wait_until_writable(comm_socket::now_us() + 60000000);
    EXPECT_TRUE(link->send_error() == EPIPE || link->send_error() == ECONNRESET);
}

TEST_F(client_link_test, reading_nothing_for_ten_seconds_ends_the_connection) {
    EXPECT_EQ(fill(), 17);
    put_clock_forward(TIMEOUT_US - 1000000);
    write();
    EXPECT_TRUE(link->is_open());
    put_clock_forward(1000000);
    write();
    EXPECT_FALSE(link->is_open());
    EXPECT_EQ(link->send_error(), ETIMEDOUT);
}

TEST_F(client_link_test, reading_a_little_within_ten_seconds_keeps_the_connection) {
    EXPECT_EQ(fill(), 17);
    for (int i = 0; i < 5; ++i) {
        put_clock_forward(TIMEOUT_US - 1000000);
        ASSERT_FALSE(peer.read_available().empty());
        write();
        ASSERT_TRUE(link->is_open());
    }
}

TEST(client_link, half_a_frame_and_silence_for_ten_seconds_end_the_connection) {
    const std::string frame = request_frame(1, "hello");
    for (const std::size_t length : {std::size_t{1}, std::size_t{8}, frame.size() - 1}) {
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        ClientLink half(fds[0]);
        RawPeer sender(fds[1]);
        std::size_t budget = PLENTY;
        sender.send_all(frame.substr(0, length));
        half.read_some(comm_socket::now_us(), &budget);
        put_clock_forward(TIMEOUT_US - 1000000);
        half.read_some(comm_socket::now_us(), &budget);
        EXPECT_TRUE(half.is_open());
        put_clock_forward(1000000);
        half.read_some(comm_socket::now_us(), &budget);
        EXPECT_FALSE(half.is_open());
    }
}

TEST_F(client_link_test, a_frame_that_trickles_for_ten_seconds_ends_the_connection) {
    const std::string frame = request_frame(1, "hello");
    for (std::size_t i = 0; i < 10; ++i) {
        peer.send_all(frame.substr(i, 1));
        read();
        EXPECT_TRUE(link->is_open()) << "after " << i << " s";
        put_clock_forward(TIMEOUT_US / 10);
    }
    peer.send_all(frame.substr(10, 1));
    read();
    EXPECT_FALSE(link->is_open());
}

TEST_F(client_link_test, a_client_may_be_silent_between_frames) {
    peer.send_all(request_frame(1, "hello"));
    read();
    put_clock_forward(10 * TIMEOUT_US);
    read();
    FrameHead head;
    FrameText text;
    ASSERT_TRUE(link->take_request(&head, &text));
    put_clock_forward(10 * TIMEOUT_US);
    read();
    EXPECT_TRUE(link->is_open());
    peer.send_all(request_frame(2, "hello").substr(0, 20));
    read();
    EXPECT_TRUE(link->is_open());
}

TEST_F(client_link_test, a_slow_server_does_not_disconnect_the_client) {
    const std::string frame = request_frame(1, std::string(100000, 'c'));
    std::thread sender([this, &frame] { peer.send_all(frame); });
    while (!link->has_request() && link->is_open()) {
        std::size_t budget = 1000;  // a server that reads little, and only every 11 s
        link->read_some(comm_socket::now_us(), &budget);
        if (budget == 0) {
            put_clock_forward(TIMEOUT_US + 1000000);
        }
    }
    sender.join();
    EXPECT_TRUE(link->has_request());
}

TEST_F(client_link_test, reads_ahead_only_up_to_a_limit) {
    const std::string frame = request_frame(1, std::string(1000, 'c'));
    std::size_t taken = 0;
    for (int idle = 0; idle < 100; ++idle) {
        for (int i = 0; i < 1000; ++i) {
            taken += peer.send_some(frame);
        }
        read();
    }
    EXPECT_LT(taken, 4 * MEBIBYTE);
    EXPECT_TRUE(link->is_open());
}

TEST_F(client_link_test, complete_requests_remain_after_the_peer_has_disconnected) {
    peer.send_all(request_frame(1, "one") + request_frame(2, "two") + "CS");
    peer.close_now();
    read();
    EXPECT_FALSE(link->is_open());
    EXPECT_EQ(link->send_error(), EPIPE);
    FrameHead head;
    FrameText text;
    ASSERT_TRUE(link->take_request(&head, &text));
    ASSERT_TRUE(link->take_request(&head, &text));
    EXPECT_EQ(text.command, "two");
}

TEST_F(client_link_test, a_request_remains_after_a_peer_has_disconnected_without_reading_its_replies) {
    EXPECT_EQ(fill(), 17);
    peer.send_all(request_frame(1, "one"));
    peer.close_now();
    read();
    EXPECT_FALSE(link->is_open());
    EXPECT_EQ(link->waiting_bytes(), 0u);
    EXPECT_TRUE(link->has_request());
}

TEST_F(client_link_test, half_a_request_of_a_half_closed_peer_is_not_kept) {
    peer.send_all(request_frame(1, "one").substr(0, 20));
    peer.shut_sending();
    read();
    EXPECT_TRUE(link->is_open());
    EXPECT_EQ(link->untaken_bytes(), 0u);
}

TEST_F(client_link_test, a_half_closed_peer_gets_its_replies_before_the_link_finishes) {
    peer.send_all(request_frame(1, "one"));
    peer.shut_sending();
    read();
    EXPECT_TRUE(link->is_open());
    link->finish();
    EXPECT_TRUE(link->is_open()) << "a request is still to be taken";
    FrameHead head;
    FrameText text;
    ASSERT_TRUE(link->take_request(&head, &text));
    link->queue(OutgoingFrame(std::string(3 * MEBIBYTE, 'r')));
    link->finish();
    EXPECT_TRUE(link->is_open()) << "the reply has not left";
    std::size_t received = 0;
    while (received < 3 * MEBIBYTE) {
        received += peer.read_available().size();
        write();
    }
    link->finish();
    EXPECT_FALSE(link->is_open());
    EXPECT_EQ(link->send_error(), EPIPE);
    EXPECT_TRUE(peer.is_closed());
}

TEST_F(client_link_test, requests_sent_before_closing_are_read_after_a_failed_reply) {
    peer.send_all(request_frame(1, "one") + request_frame(2, "two"));
    peer.close_now();
    link->queue(OutgoingFrame("reply"));
    EXPECT_EQ(link->send_error(), EPIPE);
    read();
    FrameHead head;
    FrameText text;
    ASSERT_TRUE(link->take_request(&head, &text));
    ASSERT_TRUE(link->take_request(&head, &text));
    EXPECT_FALSE(link->is_open());
}

TEST_F(client_link_test, a_peer_that_only_stops_reading_loses_the_connection) {
    shutdown(peer.fd, SHUT_RD);
    link->queue(OutgoingFrame("reply"));
    EXPECT_EQ(link->send_error(), EPIPE);
    read();
    EXPECT_FALSE(link->is_open());
}
