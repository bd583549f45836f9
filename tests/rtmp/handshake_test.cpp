#include <array>
#include <cstdlib>
#include <thread>

#include "rtmp/reader_thread.h"
#include "tests/support/connection_fixture.h"
#include "tests/support/page_example.h"
#include "tests/support/soiled_stack.h"

namespace {

constexpr std::size_t BLOCK_BYTES = 1536;

class handshake : public ConnectionFixture {
  protected:
    RTMPConnection& conn = add_connection();

    void send_all(const std::string& bytes) {
        ASSERT_EQ(send(peer(conn), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }

    std::string receive(std::size_t bytes) {
        std::string received(bytes, '\0');
        received.resize(static_cast<std::size_t>(
            std::max<ssize_t>(0, recv(peer(conn), received.data(), bytes, MSG_WAITALL))));
        return received;
    }

    // Runs the server's side while client() plays the other; returns its result.
    template <typename Client>
    bool shake(Client client) {
        bool result = false;
        std::thread server([&] {
            soil_stack();
            result = conn.handshake();
        });
        client();
        shutdown(peer(conn), SHUT_WR);
        server.join();
        return result;
    }
};

const std::string C1 = [] {
    std::string block(BLOCK_BYTES, '\x33');
    block.replace(0, 8, std::string("\x01\x02\x03\x04\x09\x00\x7C\x02", 8));
    return block;
}();

}  // namespace

TEST_F(handshake, succeeds_with_an_echo_and_counts_every_byte) {
    EXPECT_TRUE(shake([&] {
        send_all("\x03" + C1);
        EXPECT_EQ(receive(1), "\x03");
        const std::string s1 = receive(BLOCK_BYTES);
        EXPECT_EQ(s1.substr(0, 8), std::string(8, '\0'));
        std::string s2 = C1;
        s2.replace(4, 4, std::string(4, '\0'));
        EXPECT_EQ(receive(BLOCK_BYTES), s2);
        send_all(s1);
    }));
    EXPECT_EQ(conn.conn_g_server.bytes_total, 1 + 2 * BLOCK_BYTES);
    EXPECT_EQ(conn.conn_g_client.bytes_total, 1 + 2 * BLOCK_BYTES);
}

// The page shows the first bytes of each block. The rest of C1 is 33, and the rest of C2 repeats S1.
TEST_F(handshake, exchanges_the_blocks_of_the_page) {
    const std::string hello = example_bytes("handshake_c0_c1");
    std::srand(1);  // The state of a generator that was never seeded.
    EXPECT_TRUE(shake([&] {
        send_all(hello + std::string(1 + BLOCK_BYTES - hello.size(), '\x33'));
        const std::string s0_s1 = receive(1 + BLOCK_BYTES);
        const std::string shown_s0_s1 = example_bytes("handshake_s0_s1");
        EXPECT_EQ(s0_s1.substr(0, shown_s0_s1.size()), shown_s0_s1);
        const std::string shown_s2 = example_bytes("handshake_s2");
        EXPECT_EQ(receive(BLOCK_BYTES), shown_s2 + std::string(BLOCK_BYTES - shown_s2.size(), '\x33'));
        const std::string shown_c2 = example_bytes("handshake_c2");
        send_all(shown_c2 + s0_s1.substr(1 + shown_c2.size()));
    }));
}

TEST_F(handshake, counts_the_bytes_of_a_c1_that_ends_early) {
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE(shake([&] { send_all("\x03" + C1.substr(0, 100)); })); }),
              "C1 fail\n");
    EXPECT_EQ(conn.conn_g_server.bytes_total, 101U);
}

TEST_F(handshake, ignores_bytes_4_to_7_of_the_echo_and_no_others) {
    for (const std::size_t changed : {0U, 3U, 4U, 7U, 8U, 1535U}) {
        RTMPConnection& other = add_connection();
        bool result = false;
        std::thread server([&] { result = other.handshake(); });
        const int fd = peer(other);
        const std::string hello = "\x03" + C1;
        ASSERT_EQ(send(fd, hello.data(), hello.size(), 0), 1537);
        std::string answer(1 + 2 * BLOCK_BYTES, '\0');
        ASSERT_EQ(recv(fd, answer.data(), answer.size(), MSG_WAITALL), 3073);
        std::string c2 = answer.substr(1, BLOCK_BYTES);
        c2[changed] = static_cast<char>(c2[changed] ^ 1);
        testing::internal::CaptureStderr();
        ASSERT_EQ(send(fd, c2.data(), c2.size(), 0), 1536);
        server.join();
        const bool ignored = changed >= 4 && changed <= 7;
        EXPECT_EQ(result, ignored) << changed;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), ignored ? "" : "C2 fail\n");
    }
}

// Reading ahead begins with the messages.
TEST_F(handshake, that_fails_leaves_the_bytes_after_it_in_the_socket) {
    struct Failure {
        std::string greeting;
        std::string line;
    };
    for (const Failure& failure :
         {Failure{"\x04", "C0 fail\n"}, Failure{"\x03" + C1 + std::string(BLOCK_BYTES, 'x'), "C2 fail\n"}}) {
        RTMPConnection& failing = add_connection();
        const std::string sent = failure.greeting + "behind";
        ASSERT_EQ(write(peer(failing), sent.data(), sent.size()), static_cast<ssize_t>(sent.size()));
        EXPECT_EQ(printed_by([&] { read_session(failing); }),
                  "RTMP begin\n" + failure.line + "RTMP handshake failed\n");
        char left[100];
        EXPECT_EQ(recv(failing.fd, left, sizeof left, MSG_DONTWAIT), 6);
        EXPECT_EQ(failing.conn_g_server.bytes_total, failure.greeting.size());
    }
}

TEST_F(handshake, names_the_step_whose_bytes_cannot_be_sent) {
    shutdown(conn.fd, SHUT_WR);
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE(shake([&] { send_all("\x03"); })); }), "S0 fail\n");
}
