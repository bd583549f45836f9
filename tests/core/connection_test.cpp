#include "core/switches.h"
#include "tests/support/connection_fixture.h"

namespace {

using connection = ConnectionFixture;

}  // namespace

TEST_F(connection, begins_acknowledging_every_message) {
    const RTMPConnection& conn = add_connection("203.0.113.9:1234");
    EXPECT_EQ(conn.address, "203.0.113.9:1234");
    const auto expect_beginning = [](const auto& link) {
        EXPECT_TRUE(link.ack_flag);
        EXPECT_EQ(link.window_ack_size, 1U);
        EXPECT_EQ(link.bytes_total, 0U);
        EXPECT_EQ(link.bytes_unacked, 0U);
        EXPECT_EQ(link.chunk_size, 128U);
    };
    expect_beginning(conn.conn_g_server);
    expect_beginning(conn.conn_g_client);
}

TEST_F(connection, begins_without_acknowledging_when_switched_off) {
    opt_no_def_ack = true;
    const RTMPConnection& conn = add_connection();
    opt_no_def_ack = false;
    EXPECT_FALSE(conn.conn_g_server.ack_flag);
    EXPECT_EQ(conn.conn_g_server.window_ack_size, 0U);
    EXPECT_FALSE(conn.conn_g_client.ack_flag);
    EXPECT_EQ(conn.conn_g_client.window_ack_size, 0U);
}

TEST_F(connection, begins_with_nothing_known) {
    const RTMPConnection& conn = add_connection();
    EXPECT_EQ(conn.stream_format.video_width, -1);
    EXPECT_EQ(conn.stream_format.video_height, -1);
    EXPECT_EQ(conn.stream_format.audio_codec_id, 0U);
    EXPECT_EQ(conn.stream_format.video_codec_id, 0U);
    EXPECT_EQ(conn.audio.lock_type, NO_CODEC_LOCK);
    EXPECT_EQ(conn.video.lock_type, NO_CODEC_LOCK);
    EXPECT_EQ(conn.metadata.type, AMF_Type::Undefined);
    EXPECT_EQ(conn.app_name + conn.stream_mode + conn.stream_name.str(), "");
}

TEST_F(connection, is_kept_with_both_threads_and_an_open_socket) {
    EXPECT_TRUE(add_connection().ok());
}

TEST_F(connection, is_kept_without_a_thread_only_while_messages_wait) {
    RTMPConnection& conn = add_connection();
    conn.thread_init = false;
    EXPECT_FALSE(conn.ok());
    conn.connection_in.push_back(make_packet(9, 0, "x"));
    EXPECT_TRUE(conn.ok());
    conn.thread_init = true;
    conn.thread2_init = false;
    EXPECT_TRUE(conn.ok());
    conn.connection_in.clear();
    EXPECT_FALSE(conn.ok());
    conn.thread2_init = true;
}

TEST_F(connection, is_not_kept_when_its_close_is_requested_or_done) {
    RTMPConnection& conn = add_connection();
    conn.close_requested = true;
    EXPECT_FALSE(conn.ok());
    conn.close_connection();
    EXPECT_FALSE(conn.close_requested);
    EXPECT_EQ(conn.fd, -1);
    EXPECT_FALSE(conn.ok());
}

TEST_F(connection, closing_stops_both_threads_and_leaves_the_registry) {
    RTMPConnection& conn = add_connection();
    conn.stream_name = "cam1";
    conn.stream_mode = "publish";
    find_or_insert_stream("cam1").publisher = conn.conn_idx;
    EXPECT_EQ(printed_by([&] { conn.close_connection(); }), "");
    EXPECT_FALSE(conn.thread_init || conn.thread2_init);
    EXPECT_TRUE(conn.closing && conn.closed);
    EXPECT_EQ(find_or_insert_stream("cam1").publisher, NO_CONNECTION);
}

TEST_F(connection, closing_keeps_another_publisher) {
    RTMPConnection& conn = add_connection();
    conn.stream_name = "cam1";
    find_or_insert_stream("cam1").publisher = 77;
    conn.close_connection();
    EXPECT_EQ(find_or_insert_stream("cam1").publisher, 77U);
}

TEST_F(connection, closing_reports_which_thread_had_already_ended) {
    RTMPConnection& conn = add_connection();
    // The idle threads of this test must be both ended and marked.
    pthread_cancel(conn.thread);
    pthread_cancel(conn.thread2);
    conn.thread_died = true;
    conn.thread2_died = true;
    EXPECT_EQ(printed_by([&] { conn.close_connection(); }),
              "Not cancelling thread, it died\nNot cancelling thread2, it died\n");
}

TEST_F(connection, a_thread_that_ended_is_joined_with_a_warning_while_the_socket_is_open) {
    RTMPConnection& conn = add_connection();
    pthread_cancel(conn.thread);
    conn.thread_died = true;
    EXPECT_EQ(printed_by([&] { conn.idle(); }), "Thread 1 died\nWARNING: Thread terminated unexpectedly\n");
    EXPECT_FALSE(conn.thread_init);
    pthread_cancel(conn.thread2);
    conn.thread2_died = true;
    EXPECT_EQ(printed_by([&] { conn.idle(); }), "Thread 2 died\nWARNING: Thread2 terminated unexpectedly\n");
    EXPECT_FALSE(conn.thread2_init);
}

TEST_F(connection, a_requested_close_is_carried_out_by_the_next_pass) {
    RTMPConnection& conn = add_connection();
    conn.connection_in.push_back(make_packet(20, 0, "\x05"));
    conn.close_requested = true;
    EXPECT_EQ(printed_by([&] { conn.idle(); }), "");  // its message is no longer handled
    EXPECT_EQ(conn.fd, -1);
}
