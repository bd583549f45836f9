#include "rtmp/chunk_format.h"
#include "tests/support/assertion_line.h"
#include "tests/support/connection_fixture.h"
#include "tests/support/page_example.h"
#include "tests/support/soiled_stack.h"

namespace {

class chunk_reader : public ConnectionFixture {
  protected:
    RTMPConnection& conn = add_connection();

    void client_sends(const std::string& bytes) {
        ASSERT_EQ(send(peer(conn), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }

    bool read_message() {
        conn.in_pkt.chunk.message.release();
        soil_stack();
        return conn.rtmp_read_packet(conn.in_pkt);
    }
};

// Format 0 on chunk stream 3: timestamp 0, type 20, message stream 0.
std::string header_of(std::size_t length) {
    std::string header("\x03\x00\x00\x00\x00\x00\x00\x14\x00\x00\x00\x00", 12);
    header[4] = static_cast<char>(length >> 16);
    header[5] = static_cast<char>(length >> 8);
    header[6] = static_cast<char>(length);
    return header;
}

// The payload of the 40-byte message on the page.
const std::string PAGE_PAYLOAD =
    std::string("\x17\x01\0\0\0\0\0\0\0", 9) + R"(@ABCDEFGHIJKLMNOPQRSTUVWXYZ[\]^)";

}  // namespace

TEST_F(chunk_reader, joins_the_chunks_of_a_message) {
    client_sends(header_of(300) + std::string(128, 'a') + "\xC3" + std::string(128, 'b') + "\xC3" +
                 std::string(44, 'c'));
    ASSERT_TRUE(read_message());
    EXPECT_EQ(payload_of(conn.in_pkt), std::string(128, 'a') + std::string(128, 'b') + std::string(44, 'c'));
    EXPECT_EQ(conn.in_pkt.chunk.stream_id, 3U);
    EXPECT_EQ(conn.in_pkt.chunk.message_type_id, 20);
}

TEST_F(chunk_reader, uses_a_new_chunk_size_from_the_next_chunk) {
    conn.conn_g_client.chunk_size = 4096;
    client_sends(header_of(300) + std::string(300, 'x'));
    ASSERT_TRUE(read_message());
    EXPECT_EQ(payload_of(conn.in_pkt), std::string(300, 'x'));
}

TEST_F(chunk_reader, takes_a_continuation_of_any_chunk_stream_id) {
    client_sends(header_of(130) + std::string(128, 'a') + std::string("\xC0\x07", 2) + "yz");
    ASSERT_TRUE(read_message());
    EXPECT_EQ(payload_of(conn.in_pkt), std::string(128, 'a') + "yz");
    EXPECT_EQ(conn.chunk_streams.size(), 1U);
}

TEST_F(chunk_reader, reads_the_chunks_of_16_bytes_on_the_page) {
    client_sends(example_bytes("chunk_size_of_16"));
    EXPECT_EQ(printed_by([&] { EXPECT_TRUE(conn.rtmp_proc_packet()); }),
              "RTMP: New chunk size 16 accepted\n");
    ASSERT_TRUE(read_message());
    EXPECT_EQ(payload_of(conn.in_pkt), PAGE_PAYLOAD);
    EXPECT_EQ(conn.in_pkt.chunk.message_type_id, 9);
    EXPECT_EQ(conn.in_pkt.chunk.timestamp, 40U);
    EXPECT_EQ(conn.in_pkt.chunk.message_stream_id, 1U);
}

TEST_F(chunk_reader, reads_the_header_formats_on_the_page) {
    client_sends(example_bytes("chunk_formats"));
    const std::vector<std::pair<std::uint32_t, std::string>> messages{
        {1000, "\xAF\x01"}, {1023, "\xAF\x01\x21"}, {1046, "\xAF\x01\x22"}, {1069, "\xAF\x01\x23"}};
    for (const auto& [timestamp, payload] : messages) {
        ASSERT_TRUE(read_message());
        EXPECT_EQ(conn.in_pkt.chunk.timestamp, timestamp);
        EXPECT_EQ(payload_of(conn.in_pkt), payload);
        EXPECT_EQ(conn.in_pkt.chunk.message_type_id, 8);
        EXPECT_EQ(conn.in_pkt.chunk.message_stream_id, 1U);
    }
}

TEST_F(chunk_reader, reads_the_chunk_stream_ids_on_the_page) {
    client_sends(example_bytes("chunk_stream_ids"));
    for (const std::uint32_t id : {63U, 64U, 319U, 320U, 65599U}) {
        ASSERT_TRUE(read_message());
        EXPECT_EQ(conn.in_pkt.chunk.stream_id, id);
        EXPECT_EQ(payload_of(conn.in_pkt), "\xAA");
    }
}

TEST_F(chunk_reader, reads_the_timestamps_on_the_page) {
    client_sends(example_bytes("chunk_timestamps"));
    for (const std::uint32_t timestamp : {0xFFFFFEU, 0xFFFFFFU, 0x1000000U}) {
        ASSERT_TRUE(read_message());
        EXPECT_EQ(conn.in_pkt.chunk.timestamp, timestamp);
        EXPECT_EQ(payload_of(conn.in_pkt), "\xAA");
    }
}

TEST_F(chunk_reader, refuses_another_format_inside_a_message) {
    client_sends(header_of(300) + std::string(128, 'a') + "\xC3" + std::string(128, 'b') + "\x83");
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE(read_message()); }), "fmt=2 and not first packet!\n");
}

TEST_F(chunk_reader, a_message_of_no_length_has_no_data) {
    client_sends(header_of(0));
    ASSERT_TRUE(read_message());
    EXPECT_EQ(conn.in_pkt.chunk.message.data, nullptr);
    EXPECT_EQ(conn.in_pkt.chunk.message.data_length, 0U);
}

TEST_F(chunk_reader, reads_the_two_and_three_byte_chunk_stream_ids) {
    client_sends(std::string("\x00\x00", 2) + header_of(0).substr(1));
    ASSERT_TRUE(read_message());
    EXPECT_EQ(conn.in_pkt.chunk.stream_id, 64U);
    client_sends(std::string("\x01\x00\x01", 3) + header_of(0).substr(1));
    ASSERT_TRUE(read_message());
    EXPECT_EQ(conn.in_pkt.chunk.stream_id, 320U);
    client_sends(std::string("\x01\xFF\xFF", 3) + header_of(0).substr(1));
    ASSERT_TRUE(read_message());
    EXPECT_EQ(conn.in_pkt.chunk.stream_id, 65599U);
}

TEST_F(chunk_reader, reads_the_extended_timestamp_of_format_0) {
    std::string header = header_of(0);
    header.replace(1, 3, "\xFF\xFF\xFF");
    client_sends(header + std::string("\x00\x00\x01\x00", 4));
    ASSERT_TRUE(read_message());
    EXPECT_EQ(conn.in_pkt.chunk.timestamp, 256U);
}

TEST_F(chunk_reader, refuses_a_message_above_the_limit_before_its_payload) {
    client_sends(header_of(0x100000) + "payload");
    // A reader that waited for the whole payload would read the end of the stream instead.
    ASSERT_EQ(shutdown(peer(conn), SHUT_WR), 0);
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE(read_message()); }),
              "Failed to alloc pkt data\n"
              "RTMP packet: chunk fmt=0 stream_id=3 timestamp=0 message_length=1048576 message_type_id=20 "
              "message_stream_id=0\n");
    char unread[16];
    EXPECT_EQ(recv(conn.fd, unread, sizeof unread, MSG_DONTWAIT), 7);
}

TEST_F(chunk_reader, takes_the_64th_chunk_stream_and_no_header_after_it) {
    for (int id = 3; id < 3 + 63; ++id) {
        std::string basic = id < 64 ? std::string(1, static_cast<char>(0xC0 | id))
                                    : std::string("\xC0", 1) + static_cast<char>(id - 64);
        client_sends(basic);
        ASSERT_TRUE(read_message()) << id;
    }
    client_sends(std::string("\x00\x40", 2) + header_of(0).substr(1));
    ASSERT_TRUE(read_message());
    client_sends("\xC3");
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE(read_message()); }), "RTMP: Too many streams\n");
}

TEST_F(chunk_reader, is_silent_when_the_client_closes_at_any_byte) {
    const std::string message = header_of(130) + std::string(128, 'a') + "\xC3" + "yz";
    for (std::size_t length = 0; length < message.size(); ++length) {
        RTMPConnection& other = add_connection();
        ASSERT_EQ(send(peer(other), message.data(), length, 0), static_cast<ssize_t>(length));
        shutdown(peer(other), SHUT_WR);
        EXPECT_EQ(printed_by([&] { EXPECT_FALSE(other.rtmp_read_packet(other.in_pkt)); }), "") << length;
        free_connection(other.conn_idx);
    }
}

TEST_F(chunk_reader, refuses_a_packet_that_still_has_a_payload) {
    conn.in_pkt = make_packet(20, 0, "old");
    client_sends(header_of(3) + "new");
    const std::string printed = printed_by([&] { EXPECT_FALSE(conn.rtmp_read_packet(conn.in_pkt)); });
    EXPECT_TRUE(printed.starts_with("Failed to alloc pkt data\nRTMP packet: "));
}

using chunk_reader_death = chunk_reader;

TEST_F(chunk_reader_death, a_chunk_size_of_zero_ends_the_process) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    conn.conn_g_client.chunk_size = 0;
    client_sends(header_of(3) + "abc");
    EXPECT_EXIT((void)read_message(), testing::KilledBySignal(SIGABRT),
                assertion_line("read_payload", "conn_g_client.chunk_size != uint32_t(0)"));
}
