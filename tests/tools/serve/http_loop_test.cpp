#include "tools/v9_rtmp_ctl/serve/http_loop.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <memory>
#include <vector>

using testing::EndsWith;

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds DEADLINE{10};

// A client's end of a connection.
class Peer {
  public:
    explicit Peer(const sockaddr_in& address) : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(fcntl(fd, F_SETFL, O_NONBLOCK), 0);
    }
    ~Peer() { close(fd); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    // False when the connection is gone.
    [[nodiscard]] bool say(const std::string& text) const {
        return send(fd, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
    }
    // Takes what has arrived. False when the connection has ended.
    bool take() {
        std::array<char, 65536> bytes{};
        const ssize_t length = recv(fd, bytes.data(), bytes.size(), 0);
        if (length > 0) {
            heard.append(bytes.data(), static_cast<std::size_t>(length));
        }
        return length > 0 || (length < 0 && (errno == EAGAIN || errno == EWOULDBLOCK));
    }

    std::string heard;

  private:
    const int fd;
};

class loop_test : public testing::Test {
  protected:
    loop_test() {
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        EXPECT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), length), 0);
        EXPECT_EQ(listen(listener, 1024), 0);
        EXPECT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
    }
    ~loop_test() override { close(listener); }

    // Turns until the peer's connection has ended, and returns how long that took.
    Clock::duration turn_until_end(Peer& peer) {
        const Clock::time_point begin = Clock::now();
        while (peer.take() && Clock::now() - begin < DEADLINE) {
            loop->turn(std::chrono::milliseconds(10));
        }
        EXPECT_LT(Clock::now() - begin, DEADLINE);
        return Clock::now() - begin;
    }
    void turn_until_clients(std::size_t count) {
        const Clock::time_point begin = Clock::now();
        while (loop->client_count() != count && Clock::now() - begin < DEADLINE) {
            loop->turn(std::chrono::milliseconds(10));
        }
        EXPECT_EQ(loop->client_count(), count);
    }

    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    std::string reply = "HTTP/1.1 200 OK\r\n\r\nwell";
    std::vector<std::string> heads;
    std::unique_ptr<HttpLoop> loop = std::make_unique<HttpLoop>(listener, [this](const std::string& head) {
        heads.push_back(head);
        return reply;
    });
};

}  // namespace

TEST_F(loop_test, a_request_is_answered_and_the_connection_ends) {
    Peer peer(address);
    ASSERT_TRUE(peer.say("GET / HTTP/1.1\r\n\r\n"));
    turn_until_end(peer);
    EXPECT_EQ(peer.heard, reply);
    EXPECT_THAT(heads, testing::ElementsAre("GET / HTTP/1.1\r\n\r\n"));
}

TEST_F(loop_test, a_request_may_come_byte_by_byte) {
    Peer peer(address);
    for (const char c : std::string("GET / HTTP/1.1\r\n\r\n")) {
        ASSERT_TRUE(peer.say(std::string(1, c)));
        loop->turn(std::chrono::milliseconds(1));
    }
    turn_until_end(peer);
    EXPECT_EQ(peer.heard, reply);
}

TEST_F(loop_test, a_reply_that_is_larger_than_the_sockets_buffers_arrives_whole) {
    reply = std::string(11000000, 'x');
    Peer peer(address);
    ASSERT_TRUE(peer.say("GET / HTTP/1.1\r\n\r\n"));
    turn_until_end(peer);
    EXPECT_EQ(peer.heard.size(), reply.size());
}

TEST_F(loop_test, bytes_after_the_head_do_not_prevent_the_reply) {
    Peer peer(address);
    ASSERT_TRUE(peer.say("POST / HTTP/1.1\r\n\r\n" + std::string(200000, 'b')));
    turn_until_end(peer);
    EXPECT_EQ(peer.heard, reply);
}

TEST_F(loop_test, a_head_that_is_too_long_ends_the_connection) {
    Peer peer(address);
    ASSERT_TRUE(peer.say("GET / HTTP/1.1\r\nX: " + std::string(MAX_HEAD_BYTES, 'a')));
    turn_until_end(peer);
    EXPECT_EQ(peer.heard, "");
    EXPECT_TRUE(heads.empty());
}

TEST_F(loop_test, a_client_that_sends_too_slowly_is_disconnected) {
    Peer peer(address);
    ASSERT_TRUE(peer.say("GET / HTTP/1.1\r\n"));
    const Clock::time_point begin = Clock::now();
    for (auto next = begin; peer.take() && Clock::now() - begin < DEADLINE;) {
        if (Clock::now() >= next) {
            (void)peer.say("X");
            next += std::chrono::milliseconds(100);
        }
        loop->turn(std::chrono::milliseconds(10));
    }
    EXPECT_GE(Clock::now() - begin, HEAD_LIMIT - std::chrono::milliseconds(100));
    EXPECT_LE(Clock::now() - begin, HEAD_LIMIT + std::chrono::seconds(2));
    EXPECT_EQ(loop->client_count(), 0U);
}

TEST_F(loop_test, clients_that_send_nothing_do_not_block_others) {
    std::vector<std::unique_ptr<Peer>> silent;
    for (std::size_t i = 0; i < MAX_HTTP_CLIENTS; ++i) {
        silent.push_back(std::make_unique<Peer>(address));
    }
    turn_until_clients(MAX_HTTP_CLIENTS);
    for (int i = 0; i < 20; ++i) {
        Peer peer(address);
        ASSERT_TRUE(peer.say("GET /metrics HTTP/1.1\r\n\r\n"));
        EXPECT_LT(turn_until_end(peer), std::chrono::seconds(1));
        EXPECT_THAT(peer.heard, EndsWith("well"));
    }
    EXPECT_LE(loop->client_count(), MAX_HTTP_CLIENTS);
    // The first one was disconnected, the last one was not.
    EXPECT_FALSE(silent.front()->take());
    EXPECT_TRUE(silent.back()->take());
}

TEST_F(loop_test, clients_that_do_not_read_do_not_block_others) {
    reply = std::string(11000000, 'x');
    std::vector<std::unique_ptr<Peer>> deaf;
    for (int i = 0; i < 8; ++i) {
        deaf.push_back(std::make_unique<Peer>(address));
        ASSERT_TRUE(deaf.back()->say("GET / HTTP/1.1\r\n\r\n"));
    }
    turn_until_clients(8);
    reply = "well";
    Peer peer(address);
    ASSERT_TRUE(peer.say("GET / HTTP/1.1\r\n\r\n"));
    EXPECT_LT(turn_until_end(peer), std::chrono::seconds(1));
    EXPECT_EQ(peer.heard, "well");
}
