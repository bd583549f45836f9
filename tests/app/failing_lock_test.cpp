#include "app/metadata.h"
#include "control/connection_line.h"
#include "rtmp/message_types.h"
#include "rtmp/packet_queues.h"
#include "tests/app/app_fixture.h"
#include "tests/support/wrapped_calls.h"

namespace {

class failing_lock_test : public AppFixture {
  protected:
    class FailingLock {
      public:
        explicit FailingLock(RTMPConnection& connection) {
            wrapped_calls.failing_lock = &connection.mutex.handle;
        }
        ~FailingLock() { wrapped_calls = {}; }
        FailingLock(const FailingLock&) = delete;
        FailingLock& operator=(const FailingLock&) = delete;
    };
};

}  // namespace

TEST_F(failing_lock_test, a_connection_is_not_kept) {
    RTMPConnection& conn = add_connection();
    const FailingLock failing(conn);
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE(conn.ok()); }), "Lock fail\n");
}

TEST_F(failing_lock_test, a_connection_is_listed_with_empty_counters_and_address) {
    RTMPConnection& conn = add_connection();
    conn.stream_name = "cam1";
    conn.stream_mode = "play";
    const FailingLock failing(conn);
    const ConnectionLine line = connection_line(conn);
    EXPECT_EQ(line.before_name, std::to_string(conn.conn_idx) + "\t");
    EXPECT_EQ(line.stream_name, "cam1");
    EXPECT_EQ(line.after_name, "\tplay\t\t\t\t");
}

TEST_F(failing_lock_test, messages_wait_for_a_later_pass) {
    RTMPConnection& conn = add_client();
    receive_command(conn, amf_string("nonsense"));
    {
        const FailingLock failing(conn);
        EXPECT_EQ(idle(conn), "");
    }
    EXPECT_EQ(conn.connection_in.size(), 1U);
}

TEST_F(failing_lock_test, the_reader_discards_a_message_that_it_cannot_queue) {
    RTMPConnection& conn = add_client();
    const FailingLock failing(conn);
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE(conn.add_to_incoming_queue(make_packet(9, 0, "x"))); }),
              "Failure to add to queue\n");
    EXPECT_FALSE(queue_outgoing(conn, make_packet(9, 0, "x")));
    EXPECT_FALSE(queue_acknowledgement(conn, 1));
    EXPECT_FALSE(wait_for_room_in_incoming_queue(conn));
    EXPECT_FALSE(take_outgoing(conn));
}

TEST_F(failing_lock_test, a_player_misses_the_message_and_the_others_get_it) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& first = add_player();
    RTMPConnection& second = add_player();
    {
        const FailingLock failing(first);
        EXPECT_THAT(audio(publisher, 5), testing::HasSubstr("Relay fail\n"));
    }
    EXPECT_FALSE(publisher.close_requested || first.close_requested);
    EXPECT_TRUE(take_queued(first).empty());
    EXPECT_EQ(take_queued(second).size(), 1U);
}

TEST_F(failing_lock_test, a_player_misses_the_repeated_header_but_gets_the_media) {
    RTMPConnection& publisher = add_publisher();
    audio(publisher, 5, AAC_HEADER);
    RTMPConnection& player = add_player();
    {
        const FailingLock failing(player);
        audio(publisher, 5);
    }
    EXPECT_EQ(audio(publisher, 5), "");
    EXPECT_EQ(take_queued(player).size(), 1U);
}

TEST_F(failing_lock_test, a_player_misses_the_metadata_and_the_others_get_it) {
    RTMPConnection& publisher = add_publisher();
    RTMPConnection& player = add_player();
    RTMPConnection& other = add_player();
    {
        const FailingLock failing(player);
        data_message(publisher, set_metadata(amf_object({{"width", amf_number(640)}})));
    }
    EXPECT_TRUE(take_queued(player).empty());
    EXPECT_EQ(player.stream_format.video_width, -1);
    EXPECT_EQ(take_queued(other).size(), 1U);
}
