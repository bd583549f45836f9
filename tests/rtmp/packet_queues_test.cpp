#include "rtmp/packet_queues.h"

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
