#include "tests/support/connection_fixture.h"

namespace {

class control_messages : public ConnectionFixture {
  protected:
    RTMPConnection& conn = add_connection();

    bool process(std::uint8_t type, const std::string& payload, unsigned char chunk_stream_id = 2,
                 unsigned char message_stream_id = 0) {
        std::string bytes("\x02\x00\x00\x00\x00\x00\x00\x01\x00\x00\x00\x00", 12);
        bytes[0] = static_cast<char>(chunk_stream_id);
        bytes[5] = static_cast<char>(payload.size() >> 8);
        bytes[6] = static_cast<char>(payload.size());
        bytes[7] = static_cast<char>(type);
        bytes[8] = static_cast<char>(message_stream_id);
        bytes += payload;
        EXPECT_EQ(send(peer(conn), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
        return conn.rtmp_proc_packet();
    }

    // Returns the types and payloads of the queued messages.
    std::vector<std::pair<int, std::string>> queued() {
        std::vector<std::pair<int, std::string>> packets;
        for (const RTMP_Packet& pkt : conn.connection_out) {
            packets.emplace_back(pkt.chunk.message_type_id, payload_of(pkt));
        }
        return packets;
    }

    std::string big_endian(std::uint32_t value) {
        return {static_cast<char>(value >> 24), static_cast<char>(value >> 16), static_cast<char>(value >> 8),
                static_cast<char>(value)};
    }
};

using Queued = std::vector<std::pair<int, std::string>>;

}  // namespace

TEST_F(control_messages, a_chunk_size_is_echoed_acknowledged_and_passed_on) {
    EXPECT_EQ(printed_by([&] { EXPECT_TRUE(process(1, big_endian(4096))); }),
              "RTMP: New chunk size 4096 accepted\n");
    EXPECT_EQ(conn.conn_g_client.chunk_size, 4096U);
    EXPECT_EQ(conn.conn_g_server.chunk_size, 128U);
    EXPECT_EQ(queued(), (Queued{{1, big_endian(4096)}, {3, big_endian(16)}}));
    EXPECT_EQ(conn.connection_in.size(), 1U);
}

TEST_F(control_messages, a_longer_chunk_size_message_is_echoed_whole) {
    EXPECT_TRUE(process(1, big_endian(256) + "tail"));
    EXPECT_EQ(queued().front(), (std::pair<int, std::string>{1, big_endian(256) + "tail"}));
}

TEST_F(control_messages, chunk_sizes_from_1_to_4194304_are_accepted) {
    for (const std::uint32_t accepted : {1U, 2U, 3U, 4194304U}) {
        RTMPConnection& other = add_connection();
        std::string bytes("\x02\x00\x00\x00\x00\x00\x04\x01\x00\x00\x00\x00", 12);
        bytes += big_endian(accepted);
        ASSERT_EQ(send(peer(other), bytes.data(), bytes.size(), 0), 16);
        EXPECT_TRUE(other.rtmp_proc_packet());
        EXPECT_EQ(other.conn_g_client.chunk_size, accepted);
    }
}

TEST_F(control_messages, other_chunk_sizes_end_the_reading) {
    for (const std::uint32_t refused : {0U, 4194305U, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(printed_by([&] { EXPECT_FALSE(process(1, big_endian(refused))); }),
                  "RTMP: New chunk size " + std::to_string(refused) + " rejected\nChunk size rejected\n");
    }
    EXPECT_EQ(conn.conn_g_client.chunk_size, 128U);
    EXPECT_TRUE(conn.connection_in.empty());
    EXPECT_TRUE(conn.connection_out.empty());
}

TEST_F(control_messages, a_chunk_size_without_four_bytes_ends_the_reading) {
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE(process(1, "abc")); }), "Chunk size rejected\n");
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE(process(1, "")); }), "Chunk size rejected\n");
}

TEST_F(control_messages, a_chunk_size_on_another_stream_is_not_recognized) {
    EXPECT_EQ(printed_by([&] {
                  EXPECT_TRUE(process(1, big_endian(4096), 3));
                  EXPECT_TRUE(process(1, big_endian(4096), 2, 1));
              }),
              "");
    EXPECT_EQ(conn.conn_g_client.chunk_size, 128U);
    EXPECT_EQ(conn.connection_in.size(), 2U);
}

TEST_F(control_messages, acknowledgements_and_user_control_are_silently_passed_on) {
    EXPECT_EQ(printed_by([&] {
                  EXPECT_TRUE(process(3, big_endian(1)));
                  EXPECT_TRUE(process(4, "abcdef"));
              }),
              "");
    EXPECT_EQ(conn.connection_in.size(), 2U);
}

TEST_F(control_messages, any_other_type_ends_the_reading) {
    for (const int type : {0, 2, 6, 20}) {
        char text[80];
        std::snprintf(text, sizeof text, "RTMP: unexpected control stream message type 0x%02x\n", type);
        EXPECT_EQ(printed_by([&] { EXPECT_FALSE(process(static_cast<std::uint8_t>(type), "abcde")); }), text);
    }
}

TEST_F(control_messages, a_window_counts_from_its_own_message) {
    EXPECT_TRUE(process(4, ""));  // the first message is acknowledged in any case
    conn.connection_out.clear();
    EXPECT_EQ(printed_by([&] { EXPECT_TRUE(process(5, big_endian(2500000))); }),
              "RTMP: Window ack size 2500000\n");
    EXPECT_TRUE(conn.connection_out.empty());
    EXPECT_EQ(printed_by([&] { EXPECT_TRUE(process(5, "abc")); }), "");
    EXPECT_EQ(conn.conn_g_server.window_ack_size, 2500000U);
    EXPECT_TRUE(process(5, big_endian(20)));
    EXPECT_EQ(queued(), (Queued{{3, big_endian(12 + 16 + 15 + 16)}}));
}

TEST_F(control_messages, with_the_default_window_every_message_is_acknowledged_with_all_bytes_so_far) {
    EXPECT_TRUE(process(4, "ab"));
    EXPECT_TRUE(process(4, ""));
    EXPECT_EQ(queued(), (Queued{{3, big_endian(14)}, {3, big_endian(26)}}));
    EXPECT_EQ(conn.connection_out.front().chunk.stream_id, 2U);
    EXPECT_EQ(conn.connection_out.front().chunk.message_stream_id, 0U);
    EXPECT_EQ(conn.connection_out.front().chunk.timestamp, 0U);
}

TEST_F(control_messages, a_window_of_zero_ends_acknowledging_by_count) {
    EXPECT_TRUE(process(5, big_endian(0)));
    conn.connection_out.clear();
    EXPECT_TRUE(process(4, "ab"));
    EXPECT_TRUE(conn.connection_out.empty());
}

TEST_F(control_messages, unread_acknowledgements_are_overwritten_once_1024_packets_wait) {
    for (int i = 0; i < 1023; ++i) {
        conn.connection_out.push_back(make_packet(20, 0, "reply"));
    }
    EXPECT_TRUE(process(4, ""));
    EXPECT_EQ(conn.connection_out.size(), 1024U);
    conn.connection_in.clear();
    EXPECT_TRUE(process(4, ""));
    EXPECT_EQ(conn.connection_out.size(), 1024U);
    EXPECT_EQ(payload_of(conn.connection_out.back()), big_endian(24));
    conn.connection_out.push_back(make_packet(20, 0, "reply"));
    EXPECT_TRUE(process(4, ""));
    EXPECT_EQ(conn.connection_out.size(), 1026U);
}

TEST_F(control_messages, below_1024_packets_each_message_has_its_acknowledgement) {
    for (int i = 0; i < 1022; ++i) {
        conn.connection_out.push_back(make_packet(20, 0, "reply"));
    }
    EXPECT_TRUE(process(4, ""));
    EXPECT_TRUE(process(4, ""));
    EXPECT_EQ(conn.connection_out.size(), 1024U);
}
