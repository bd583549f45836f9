#include "tests/support/connection_fixture.h"

namespace {

class socket_io : public ConnectionFixture {
  protected:
    RTMPConnection& conn = add_connection();
};

}  // namespace

TEST_F(socket_io, reading_collects_pieces_and_counts_them) {
    ASSERT_EQ(send(peer(conn), "abc", 3, 0), 3);
    ASSERT_EQ(send(peer(conn), "defg", 4, 0), 4);
    char buffer[6];
    EXPECT_EQ(conn.cread(buffer, 6), 6);
    EXPECT_EQ(std::string(buffer, 6), "abcdef");
    EXPECT_EQ(conn.conn_g_server.bytes_total, 6U);
    EXPECT_EQ(conn.conn_g_server.bytes_unacked, 6U);
}

TEST_F(socket_io, reading_up_to_the_end_returns_and_counts_the_bytes_received) {
    ASSERT_EQ(send(peer(conn), "abc", 3, 0), 3);
    shutdown(peer(conn), SHUT_WR);
    char buffer[6];
    EXPECT_EQ(conn.cread(buffer, 6), 3);
    EXPECT_EQ(conn.conn_g_server.bytes_total, 3U);
}

TEST_F(socket_io, reading_at_the_end_returns_minus_one_and_counts_nothing) {
    shutdown(peer(conn), SHUT_WR);
    char buffer[6];
    EXPECT_EQ(conn.cread(buffer, 6), -1);
    EXPECT_EQ(conn.conn_g_server.bytes_total, 0U);
}

TEST_F(socket_io, reading_takes_no_more_than_requested_before_the_handshake_is_complete) {
    ASSERT_EQ(send(peer(conn), "abcdef", 6, 0), 6);
    char buffer[6];
    EXPECT_EQ(conn.cread(buffer, 4), 4);
    EXPECT_EQ(recv(conn.fd, buffer, 6, MSG_DONTWAIT), 2);
}

TEST_F(socket_io, reading_ahead_counts_only_what_it_returns) {
    conn.read_ahead.enabled = true;
    ASSERT_EQ(send(peer(conn), "abcdef", 6, 0), 6);
    char buffer[6];
    EXPECT_EQ(conn.cread(buffer, 2), 2);
    EXPECT_EQ(conn.conn_g_server.bytes_total, 2U);
    EXPECT_EQ(conn.conn_g_server.bytes_unacked, 2U);
    EXPECT_EQ(recv(conn.fd, buffer, 6, MSG_DONTWAIT), -1) << "one call took it all";
    EXPECT_EQ(conn.cread(buffer, 3), 3);
    EXPECT_EQ(std::string(buffer, 3), "cde");
    EXPECT_EQ(conn.conn_g_server.bytes_total, 5U);
}

TEST_F(socket_io, reading_ahead_fails_like_reading_when_the_client_closes) {
    conn.read_ahead.enabled = true;
    ASSERT_EQ(send(peer(conn), "abcdef", 6, 0), 6);
    shutdown(peer(conn), SHUT_WR);
    char buffer[6];
    EXPECT_EQ(conn.cread(buffer, 4), 4);
    EXPECT_EQ(conn.cread(buffer, 4), 2);
    EXPECT_EQ(std::string(buffer, 2), "ef");
    EXPECT_EQ(conn.conn_g_server.bytes_total, 6U);
    EXPECT_EQ(conn.cread(buffer, 4), -1);
    EXPECT_EQ(conn.conn_g_server.bytes_total, 6U);
}

TEST_F(socket_io, a_large_block_is_joined_from_bytes_read_ahead_and_bytes_from_the_socket) {
    conn.read_ahead.enabled = true;
    std::string sent;
    for (std::size_t i = 0; i < 50000; ++i) {
        sent += static_cast<char>(i * 7 >> 3);
    }
    ASSERT_EQ(send(peer(conn), sent.data(), sent.size(), 0), static_cast<ssize_t>(sent.size()));
    std::string received(sent.size(), '\0');
    std::size_t done = 0;
    for (const std::size_t c : {1U, 11U, 8191U, 8192U, 1U, 20000U, 13604U}) {
        ASSERT_EQ(conn.cread(received.data() + done, c), static_cast<ssize_t>(c));
        done += c;
        EXPECT_EQ(conn.conn_g_server.bytes_total, done);
    }
    EXPECT_EQ(done, sent.size());
    EXPECT_TRUE(received == sent);
}

TEST_F(socket_io, writing_sends_and_counts_everything) {
    EXPECT_EQ(conn.cwrite("hello", 5), 5);
    char buffer[5];
    EXPECT_EQ(recv(peer(conn), buffer, 5, MSG_WAITALL), 5);
    EXPECT_EQ(std::string(buffer, 5), "hello");
    EXPECT_EQ(conn.conn_g_client.bytes_total, 5U);
    EXPECT_EQ(conn.conn_g_client.bytes_unacked, 5U);
}

TEST_F(socket_io, writing_nothing_or_to_a_closed_peer_returns_minus_one) {
    EXPECT_EQ(conn.cwrite("hello", 0), -1);
    shutdown(conn.fd, SHUT_WR);
    EXPECT_EQ(conn.cwrite("hello", 5), -1);
    EXPECT_EQ(conn.conn_g_client.bytes_total, 0U);
}
