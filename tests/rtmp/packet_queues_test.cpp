#include "rtmp/packet_queues.h"

#include "core/switches.h"
#include "tests/support/connection_fixture.h"

namespace {

class packet_queues : public ConnectionFixture {
  protected:
    RTMPConnection& conn = add_connection();

    void queue(const std::vector<std::string>& payloads) {
        for (const std::string& payload : payloads) {
            conn.connection_out.push_back(make_packet(20, 0, payload));
        }
    }

    // The payloads of the batch.
    std::vector<std::string> taken() {
        std::vector<std::string> payloads;
        for (const OutgoingPacket& pkt : conn.out_batch) {
            payloads.push_back(payload_of(pkt));
        }
        return payloads;
    }
};

}  // namespace

TEST_F(packet_queues, queueing_moves_the_payload) {
    RTMP_Packet pkt = make_packet(20, 0, "reply");
    const unsigned char* const data = pkt.chunk.message.data;
    EXPECT_TRUE(queue_outgoing(conn, std::move(pkt)));
    EXPECT_EQ(pkt.chunk.message.data, nullptr);  // NOLINT(bugprone-use-after-move): that is what is tested
    EXPECT_EQ(conn.connection_out.back().chunk.message.data, data);
}

TEST_F(packet_queues, the_writer_takes_everything_that_waits) {
    EXPECT_FALSE(take_outgoing(conn));
    queue({"1", "", "2"});
    ASSERT_TRUE(take_outgoing(conn));
    EXPECT_EQ(taken(), (std::vector<std::string>{"1", "", "2"}));
    EXPECT_FALSE(take_outgoing(conn));
    EXPECT_TRUE(conn.out_batch.empty());
}

TEST_F(packet_queues, a_batch_holds_32_messages) {
    queue(std::vector<std::string>(33, "x"));
    ASSERT_TRUE(take_outgoing(conn));
    EXPECT_EQ(conn.out_batch.size(), 32U);
    ASSERT_TRUE(take_outgoing(conn));
    EXPECT_EQ(conn.out_batch.size(), 1U);
}

TEST_F(packet_queues, a_batch_holds_256_kib) {
    const std::string half(131072, 'h');
    queue({half, half, "x"});
    ASSERT_TRUE(take_outgoing(conn));
    EXPECT_EQ(taken(), (std::vector<std::string>{half, half}));
    ASSERT_TRUE(take_outgoing(conn));
    EXPECT_EQ(taken(), std::vector<std::string>{"x"});
}

TEST_F(packet_queues, a_message_above_256_kib_is_a_batch_of_its_own) {
    const std::string large(300000, 'l');
    queue({large, "x"});
    ASSERT_TRUE(take_outgoing(conn));
    EXPECT_EQ(taken(), std::vector<std::string>{large});
}

TEST_F(packet_queues, a_batch_ends_after_the_echo_of_a_chunk_size) {
    queue({"before"});
    conn.connection_out.push_back(make_packet(1, 0, std::string("\x00\x00\x10\x00", 4), 2, 0));
    queue({"after"});
    ASSERT_TRUE(take_outgoing(conn));
    EXPECT_EQ(taken(), (std::vector<std::string>{"before", std::string("\x00\x00\x10\x00", 4)}));
    ASSERT_TRUE(take_outgoing(conn));
    EXPECT_EQ(taken(), std::vector<std::string>{"after"});
}

TEST_F(packet_queues, a_batch_is_one_message_while_packets_are_dumped) {
    opt_dbg_pkt = true;
    queue({"1", "2"});
    EXPECT_TRUE(take_outgoing(conn));
    opt_dbg_pkt = false;
    EXPECT_EQ(taken(), std::vector<std::string>{"1"});
}

TEST_F(packet_queues, messages_in_a_batch_count_when_acknowledgements_are_merged) {
    queue(std::vector<std::string>(1024, "reply"));
    ASSERT_TRUE(take_outgoing(conn));
    ASSERT_EQ(conn.connection_out.size(), 992U);
    ASSERT_TRUE(queue_acknowledgement(conn, 1));
    EXPECT_EQ(conn.connection_out.size(), 993U);
    ASSERT_TRUE(queue_acknowledgement(conn, 2));
    EXPECT_EQ(conn.connection_out.size(), 993U);
    EXPECT_EQ(payload_of(conn.connection_out.back()), std::string("\x00\x00\x00\x02", 4));
}

// The reader thread may acknowledge while the last batch is still being sent.
TEST_F(packet_queues, an_acknowledgement_is_queued_although_a_batch_has_taken_everything) {
    queue(std::vector<std::string>(32, "reply"));
    ASSERT_TRUE(take_outgoing(conn));
    conn.out_batch_messages = 2000;
    ASSERT_TRUE(queue_acknowledgement(conn, 1));
    EXPECT_EQ(conn.connection_out.size(), 1U);
}

TEST_F(packet_queues, only_acknowledgements_are_merged_into_the_last_message) {
    const std::string size("\x00\x00\x10\x00", 4);
    const RTMP_Packet others[] = {make_packet(1, 0, size, 2, 0), make_packet(3, 0, size, 4),
                                  make_packet(3, 0, size + "x", 2, 0)};
    for (const RTMP_Packet& last : others) {
        conn.connection_out.clear();
        queue(std::vector<std::string>(1024, "reply"));
        conn.connection_out.push_back(
            make_packet(last.chunk.message_type_id, 0, payload_of(last), last.chunk.stream_id));
        ASSERT_TRUE(queue_acknowledgement(conn, 1));
        ASSERT_EQ(conn.connection_out.size(), 1026U);
        EXPECT_EQ(payload_of(conn.connection_out[1024]), payload_of(last));
        EXPECT_EQ(payload_of(conn.connection_out[1025]), std::string("\x00\x00\x00\x01", 4));
    }
}
