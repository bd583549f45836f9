#include "rtmp/packet_queues.h"

#include <unistd.h>

#include <atomic>
#include <thread>

#include "tests/support/connection_fixture.h"

namespace {

class packet_queues : public ConnectionFixture {
  protected:
    RTMPConnection& conn = add_connection();
};

}  // namespace

TEST_F(packet_queues, queueing_moves_the_payload) {
    RTMP_Packet pkt = make_packet(20, 0, "reply");
    const unsigned char* const data = pkt.chunk.message.data;
    EXPECT_TRUE(queue_outgoing(conn, std::move(pkt)));
    EXPECT_EQ(pkt.chunk.message.data, nullptr);  // NOLINT(bugprone-use-after-move): that is what is tested
    EXPECT_EQ(conn.connection_out.back().chunk.message.data, data);
}

TEST_F(packet_queues, the_writer_is_told_whether_more_bytes_will_follow) {
    EXPECT_EQ(take_outgoing(conn), Outgoing::NONE);
    conn.connection_out.push_back(make_packet(20, 0, "1"));
    conn.connection_out.push_back(make_packet(8, 0, ""));
    conn.connection_out.push_back(make_packet(20, 0, "2"));
    conn.connection_out.push_back(make_packet(8, 0, ""));
    EXPECT_EQ(take_outgoing(conn), Outgoing::MORE_BEHIND);
    EXPECT_EQ(payload_of(conn.out_pkt), "1");
    EXPECT_EQ(take_outgoing(conn), Outgoing::LAST);
    EXPECT_EQ(take_outgoing(conn), Outgoing::LAST);
    EXPECT_EQ(payload_of(conn.out_pkt), "2");
    EXPECT_EQ(take_outgoing(conn), Outgoing::LAST);
    EXPECT_EQ(take_outgoing(conn), Outgoing::NONE);
}

TEST_F(packet_queues, the_reader_waits_while_eight_messages_are_queued) {
    for (int i = 0; i < 7; ++i) {
        ASSERT_TRUE(conn.add_to_incoming_queue(make_packet(9, 0, "x")));
    }
    EXPECT_TRUE(wait_for_room_in_incoming_queue(conn));

    ASSERT_TRUE(conn.add_to_incoming_queue(make_packet(9, 0, "x")));
    std::atomic<bool> went_on = false;
    std::thread reader([&] {
        EXPECT_TRUE(wait_for_room_in_incoming_queue(conn));
        went_on = true;
    });
    usleep(50000);
    EXPECT_FALSE(went_on);
    {
        const ConnectionLock lock(conn);
        conn.connection_in.pop_front();
    }
    reader.join();
    EXPECT_TRUE(went_on);
}
