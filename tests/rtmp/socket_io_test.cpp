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

TEST_F(socket_io, reading_up_to_the_end_returns_and_counts_what_came) {
    ASSERT_EQ(send(peer(conn), "abc", 3, 0), 3);
    shutdown(peer(conn), SHUT_WR);
    char buffer[6];
    EXPECT_EQ(conn.cread(buffer, 6), 3);
    EXPECT_EQ(conn.conn_g_server.bytes_total, 3U);
}

TEST_F(socket_io, reading_at_the_end_is_minus_one_and_counts_nothing) {
    shutdown(peer(conn), SHUT_WR);
    char buffer[6];
    EXPECT_EQ(conn.cread(buffer, 6), -1);
    EXPECT_EQ(conn.conn_g_server.bytes_total, 0U);
}

TEST_F(socket_io, writing_sends_and_counts_everything) {
    EXPECT_EQ(conn.cwrite("hello", 5), 5);
    char buffer[5];
    EXPECT_EQ(recv(peer(conn), buffer, 5, MSG_WAITALL), 5);
    EXPECT_EQ(std::string(buffer, 5), "hello");
    EXPECT_EQ(conn.conn_g_client.bytes_total, 5U);
    EXPECT_EQ(conn.conn_g_client.bytes_unacked, 5U);
}

TEST_F(socket_io, writing_nothing_or_to_nobody_is_minus_one) {
    EXPECT_EQ(conn.cwrite("hello", 0), -1);
    shutdown(conn.fd, SHUT_WR);
    EXPECT_EQ(conn.cwrite("hello", 5), -1);
    EXPECT_EQ(conn.conn_g_client.bytes_total, 0U);
}
