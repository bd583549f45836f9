#include <pthread.h>

#include <string>
#include <vector>

#include "core/limits.h"
#include "tests/app/app_fixture.h"

namespace {

constexpr std::size_t MESSAGES_PER_PASS = 1000;

class dispatch_test : public AppFixture {
  protected:
    // Ends the reader (or writer) thread, as after a disconnect.
    static void end_reader(RTMPConnection& conn) {
        EXPECT_EQ(pthread_cancel(conn.thread), 0);
        conn.thread_died = true;
    }
    static void end_writer(RTMPConnection& conn) {
        EXPECT_EQ(pthread_cancel(conn.thread2), 0);
        conn.thread2_died = true;
    }

    std::string service(RTMPConnection& conn) {
        return printed_by([slot = conn.conn_idx] { idle_connection(slot); });
    }

    bool peer_sees_the_end(const RTMPConnection& conn) {
        char byte = 0;
        return recv(peer(conn), &byte, 1, MSG_DONTWAIT) == 0;
    }
};

}  // namespace

TEST_F(dispatch_test, a_pass_with_nothing_to_do_prints_nothing) {
    RTMPConnection& conn = add_connection();
    EXPECT_EQ(service(conn), "");
    EXPECT_TRUE(conn.ok());
}

TEST_F(dispatch_test, a_command_without_payload_is_silently_consumed) {
    RTMPConnection& conn = add_connection();
    EXPECT_EQ(command(conn, ""), "");
    EXPECT_TRUE(conn.connection_in.empty());
    EXPECT_TRUE(conn.connection_out.empty());
    EXPECT_FALSE(conn.close_requested);
}

TEST_F(dispatch_test, a_command_with_a_length_but_no_bytes_ends_the_connection) {
    RTMPConnection& conn = add_connection();
    RTMP_Packet pkt = make_packet(MESSAGE_AMF0_COMMAND, 0, "");
    pkt.chunk.message.data_length = 5;
    receive(conn, std::move(pkt));
    EXPECT_EQ(idle(conn), "AMF0 error command\n");
    EXPECT_TRUE(conn.connection_in.empty());
    EXPECT_TRUE(conn.close_requested);
}

TEST_F(dispatch_test, a_command_whose_name_is_malformed_ends_the_connection) {
    struct Case {
        Bytes payload;
        std::string printed;
    };
    for (const Case& row : std::vector<Case>{
             {bytes_of({0x0A}), "AMF0 error command\n"},
             {bytes_of({0x02}), "AMF0 error command\n"},
             {amf_string("connect").substr(0, 9), "AMF0 error command\n"},
             {amf_ecma_array(1, {}), "AMF0 error ECMA array too short vs count\nAMF0 error command\n"},
             {amf_ecma_array(0, {{"a", amf_null()}}),
              "AMF0 error ECMA array too long vs count\nAMF0 error command\n"},
         }) {
        RTMPConnection& conn = add_connection();
        EXPECT_EQ(command(conn, row.payload), row.printed) << to_hex(row.payload);
        EXPECT_TRUE(conn.close_requested);
        EXPECT_TRUE(conn.connection_in.empty());
    }
}

TEST_F(dispatch_test, messages_of_other_types_are_silently_discarded) {
    RTMPConnection& conn = add_publisher();
    for (int type = 0; type < 256; ++type) {
        if (type == MESSAGE_AUDIO || type == MESSAGE_VIDEO || type == MESSAGE_AMF0_DATA ||
            type == MESSAGE_AMF0_COMMAND) {
            continue;
        }
        receive(conn, make_packet(static_cast<std::uint8_t>(type), 0, amf_string("deleteStream")));
        EXPECT_EQ(idle(conn), "") << type;
        EXPECT_TRUE(conn.connection_in.empty()) << type;
    }
    EXPECT_FALSE(conn.close_requested);
    EXPECT_TRUE(conn.connection_out.empty());
}

TEST_F(dispatch_test, messages_are_handled_in_order_of_arrival) {
    RTMPConnection& conn = add_connection();
    for (int id = 0; id < 3; ++id) {
        receive_command(conn, amf_string("FCPublish") + amf_number(id) + amf_null());
    }
    EXPECT_EQ(idle(conn), "");
    const std::vector<QueuedMessage> replies = take_queued(conn);
    ASSERT_EQ(replies.size(), 3U);
    for (int id = 0; id < 3; ++id) {
        EXPECT_EQ(replies[static_cast<std::size_t>(id)].payload, plain_result(amf_number(id)));
    }
}

TEST_F(dispatch_test, one_pass_takes_up_to_1000_messages_of_a_connection) {
    RTMPConnection& conn = add_connection();
    for (std::size_t i = 0; i < MESSAGES_PER_PASS; ++i) {
        receive_command(conn, amf_string("getStreamLength"));
    }
    EXPECT_EQ(idle(conn), "");
    EXPECT_EQ(conn.connection_in.size(), 0U);

    for (std::size_t i = 0; i < MESSAGES_PER_PASS + 1; ++i) {
        receive_command(conn, amf_string("getStreamLength"));
    }
    EXPECT_EQ(idle(conn), "");
    EXPECT_EQ(conn.connection_in.size(), 1U);
    EXPECT_EQ(idle(conn), "");
    EXPECT_EQ(conn.connection_in.size(), 0U);
}

TEST_F(dispatch_test, messages_after_a_failed_one_are_handled_in_the_same_pass) {
    RTMPConnection& conn = add_client();
    receive_command(conn, amf_string("badcmd"));
    receive_command(conn, publish_command("cam1"));
    EXPECT_EQ(service(conn),
              "Unknown command 'badcmd'\n"
              "AMF0 error command\n"
              "Notifing subscribers of time reset\n"
              "Connection is publishing 'cam1'\n"
              "Dropping connection\n");
    EXPECT_EQ(record().publisher, NO_CONNECTION);
}

TEST_F(dispatch_test, a_requested_close_comes_before_any_message) {
    RTMPConnection& conn = add_player();
    receive_command(conn, amf_string("deleteStream"));
    conn.close_requested = true;
    EXPECT_EQ(idle(conn), "Connection for play unsubscribed from 'cam1'\n");
    EXPECT_EQ(conn.fd, -1);
    EXPECT_TRUE(peer_sees_the_end(conn));
    EXPECT_FALSE(conn.close_requested);
    EXPECT_FALSE(conn.thread_init);
    EXPECT_FALSE(conn.thread2_init);
    EXPECT_EQ(conn.connection_in.size(), 1U);
    EXPECT_FALSE(conn.ok());
}

TEST_F(dispatch_test, a_requested_close_gives_up_the_publishers_place) {
    RTMPConnection& conn = add_publisher();
    conn.close_requested = true;
    const std::size_t slot = conn.conn_idx;
    EXPECT_EQ(service(conn), "Dropping connection\n");
    EXPECT_EQ(record().publisher, NO_CONNECTION);
    EXPECT_EQ(get_connection(slot), nullptr);
}

TEST_F(dispatch_test, a_requested_close_of_a_rival_leaves_the_publisher_in_its_place) {
    const RTMPConnection& publisher = add_publisher();
    RTMPConnection& rival = add_publisher();
    rival.close_requested = true;
    EXPECT_EQ(service(rival), "Dropping connection\n");
    EXPECT_EQ(record().publisher, publisher.conn_idx);
}

TEST_F(dispatch_test, the_close_of_a_connection_without_a_name_leaves_a_record_for_one_pass) {
    RTMPConnection& conn = add_connection();
    conn.close_requested = true;
    EXPECT_EQ(printed_by([] { idle_all_connections(); }), "Dropping connection\nDisposing old stream ''\n");
    EXPECT_EQ(stream_count(), 0U);
}

TEST_F(dispatch_test, a_reader_that_has_ended_is_joined_with_two_lines) {
    RTMPConnection& conn = add_connection();
    end_reader(conn);
    EXPECT_EQ(idle(conn), "Thread 1 died\nWARNING: Thread terminated unexpectedly\n");
    EXPECT_FALSE(conn.thread_init);
    EXPECT_TRUE(conn.thread2_init);
    EXPECT_EQ(idle(conn), "");
    EXPECT_FALSE(conn.ok());
}

TEST_F(dispatch_test, a_writer_that_has_ended_is_joined_with_two_lines) {
    RTMPConnection& conn = add_connection();
    end_writer(conn);
    EXPECT_EQ(idle(conn), "Thread 2 died\nWARNING: Thread2 terminated unexpectedly\n");
    EXPECT_TRUE(conn.thread_init);
    EXPECT_FALSE(conn.thread2_init);
    EXPECT_FALSE(conn.ok());
}

TEST_F(dispatch_test, both_threads_that_have_ended_are_joined_in_one_pass_and_the_connection_is_dropped) {
    RTMPConnection& conn = add_player();
    end_reader(conn);
    end_writer(conn);
    EXPECT_EQ(service(conn),
              "Thread 1 died\n"
              "WARNING: Thread terminated unexpectedly\n"
              "Thread 2 died\n"
              "WARNING: Thread2 terminated unexpectedly\n"
              "Dropping connection\n"
              "Connection for play unsubscribed from 'cam1'\n");
}

TEST_F(dispatch_test, threads_that_had_ended_before_a_requested_close_are_not_cancelled) {
    RTMPConnection& conn = add_publisher();
    end_reader(conn);
    end_writer(conn);
    conn.close_requested = true;
    EXPECT_EQ(service(conn),
              "Not cancelling thread, it died\n"
              "Not cancelling thread2, it died\n"
              "Dropping connection\n");
}

TEST_F(dispatch_test, messages_of_a_reader_that_has_ended_are_handled_before_the_drop) {
    RTMPConnection& conn = add_client();
    receive_command(conn, publish_command("cam1"));
    end_reader(conn);
    EXPECT_EQ(service(conn),
              "Notifing subscribers of time reset\n"
              "Connection is publishing 'cam1'\n"
              "Thread 1 died\n"
              "WARNING: Thread terminated unexpectedly\n"
              "Dropping connection\n");
}

TEST_F(dispatch_test, a_connection_whose_reader_has_ended_is_kept_while_its_media_is_ahead_of_time) {
    RTMPConnection& conn = add_publisher();
    receive_audio(conn, 1);
    receive_audio(conn, 1001);
    end_reader(conn);
    EXPECT_EQ(service(conn),
              "Lock on audio type 10\nThread 1 died\nWARNING: Thread terminated unexpectedly\n");
    fake_clock_us += 999999;
    EXPECT_EQ(service(conn), "");
    ASSERT_EQ(get_connection(conn.conn_idx), &conn);
    fake_clock_us += 1;
    EXPECT_EQ(service(conn), "Dropping connection\n");
}

TEST_F(dispatch_test, a_held_message_stays_at_the_front_of_the_queue) {
    RTMPConnection& conn = add_publisher();
    receive_audio(conn, 1);
    receive_audio(conn, 1001, AAC_HEADER);
    receive_command(conn, amf_string("deleteStream"));
    EXPECT_EQ(idle(conn), "Lock on audio type 10\n");
    ASSERT_EQ(conn.connection_in.size(), 2U);
    EXPECT_EQ(payload_of(conn.connection_in.front()), AAC_HEADER);
    EXPECT_EQ(conn.connection_in.front().chunk.timestamp, 1001U);
    EXPECT_FALSE(conn.close_requested);

    fake_clock_us += 1000000;
    EXPECT_TRUE(idle(conn).ends_with("deleteStream, drop connection\nAMF0 error command\n"));
    EXPECT_TRUE(conn.connection_in.empty());
    EXPECT_EQ(payload_of(conn.audio.seq_header), AAC_HEADER);
}

TEST_F(dispatch_test, media_that_the_relay_refuses_drops_the_publisher_and_leaves_the_queue) {
    RTMPConnection& conn = add_publisher();
    audio(conn, 1, AAC_FRAME);
    EXPECT_EQ(audio(conn, 1, MP3_FRAME), "Audio format change\nA/V error\n");
    EXPECT_TRUE(conn.close_requested);
    EXPECT_TRUE(conn.connection_in.empty());
}

TEST_F(dispatch_test, a_malformed_data_message_ends_the_connection_and_leaves_the_queue) {
    RTMPConnection& conn = add_publisher();
    EXPECT_EQ(data_message(conn, bytes_of({0x0A})), "AMF0 error notify\n");
    EXPECT_TRUE(conn.close_requested);
    EXPECT_TRUE(conn.connection_in.empty());
}

TEST_F(dispatch_test, the_lock_is_free_again_after_every_pass) {
    RTMPConnection& conn = add_publisher();
    receive_audio(conn, 1);
    receive_audio(conn, 100000);
    idle(conn);
    ASSERT_EQ(pthread_mutex_trylock(&conn.mutex.handle), 0);
    pthread_mutex_unlock(&conn.mutex.handle);
    conn.connection_in.clear();
    command(conn, amf_string("x"));
    ASSERT_EQ(pthread_mutex_trylock(&conn.mutex.handle), 0);
    pthread_mutex_unlock(&conn.mutex.handle);
}
