#include <fcntl.h>

#include <thread>

#include "tests/support/connection_fixture.h"
#include "tests/support/page_example.h"

namespace {

class chunk_writer : public ConnectionFixture {
  protected:
    RTMPConnection& conn = add_connection();

    void queue(RTMP_Packet&& pkt) { conn.connection_out.push_back(std::move(pkt)); }

    bool send_next() { return conn.rtmp_send_packet(); }

    std::string arrived() { return ConnectionFixture::arrived(conn); }
};

// The chunks of a message on chunk stream 3, timestamp 0, type 20, message stream 1.
std::string chunked(const std::string& payload, std::size_t chunk_size) {
    std::string bytes("\x03\x00\x00\x00\x00\x00\x00\x14\x01\x00\x00\x00", 12);
    bytes[4] = static_cast<char>(payload.size() >> 16);
    bytes[5] = static_cast<char>(payload.size() >> 8);
    bytes[6] = static_cast<char>(payload.size());
    for (std::size_t s = 0; s < payload.size(); s += chunk_size) {
        bytes += (s == 0 ? "" : "\xC3") + payload.substr(s, chunk_size);
    }
    return bytes;
}

// The payload of the 40-byte message on the page.
const std::string PAGE_PAYLOAD =
    std::string("\x17\x01\0\0\0\0\0\0\0", 9) + R"(@ABCDEFGHIJKLMNOPQRSTUVWXYZ[\]^)";

}  // namespace

TEST_F(chunk_writer, a_300_byte_message_is_three_chunks) {
    const std::string payload = std::string(128, 'a') + std::string(128, 'b') + std::string(44, 'c');
    queue(make_packet(20, 0, payload, 3));
    ASSERT_TRUE(send_next());
    EXPECT_EQ(arrived(), chunked(payload, 128));
    EXPECT_EQ(conn.conn_g_client.bytes_total, 12U + 300 + 2);
    EXPECT_EQ(conn.conn_g_client.bytes_unacked, 12U + 300 + 2);
}

TEST_F(chunk_writer, payloads_around_a_chunk_boundary_have_no_empty_chunk) {
    for (const std::size_t length : {1U, 127U, 128U, 129U, 255U, 256U, 257U}) {
        const std::string payload(length, 'p');
        queue(make_packet(20, 0, payload, 3));
        ASSERT_TRUE(send_next());
        EXPECT_EQ(arrived(), chunked(payload, 128)) << length;
    }
}

TEST_F(chunk_writer, long_chunk_stream_ids_are_repeated_in_continuations) {
    queue(make_packet(20, 0, std::string(130, 'p'), 64));
    ASSERT_TRUE(send_next());
    EXPECT_EQ(arrived(), std::string("\x00\x00", 2) + chunked(std::string(130, 'p'), 200).substr(1, 11) +
                             std::string(128, 'p') + std::string("\xC0\x00", 2) + "pp");
    queue(make_packet(20, 0, std::string(130, 'p'), 320));
    ASSERT_TRUE(send_next());
    EXPECT_EQ(arrived(), std::string("\x01\x00\x01", 3) + chunked(std::string(130, 'p'), 200).substr(1, 11) +
                             std::string(128, 'p') + std::string("\xC1\x00\x01", 3) + "pp");
}

TEST_F(chunk_writer, an_extended_timestamp_is_not_repeated_in_continuations) {
    queue(make_packet(20, 0xFFFFFF, std::string(130, 'p'), 3));
    ASSERT_TRUE(send_next());
    EXPECT_EQ(arrived(), std::string("\x03\xFF\xFF\xFF\x00\x00\x82\x14\x01\x00\x00\x00\x00\xFF\xFF\xFF", 16) +
                             std::string(128, 'p') + "\xC3" + "pp");
}

TEST_F(chunk_writer, writes_the_chunks_of_16_bytes_on_the_page) {
    queue(make_packet(1, 0, std::string("\x00\x00\x00\x10", 4), 2, 0));
    queue(make_packet(9, 40, PAGE_PAYLOAD, 4));
    ASSERT_TRUE(send_next() && send_next());
    EXPECT_EQ(arrived(), example_bytes("chunk_size_of_16"));
}

TEST_F(chunk_writer, writes_the_chunk_stream_ids_on_the_page) {
    for (const std::uint32_t id : {63U, 64U, 319U, 320U, 65599U}) {
        queue(make_packet(8, 0, "\xAA", id));
    }
    ASSERT_TRUE(send_next());
    EXPECT_EQ(arrived(), example_bytes("chunk_stream_ids"));
}

TEST_F(chunk_writer, writes_the_timestamps_on_the_page) {
    for (const std::uint32_t timestamp : {0xFFFFFEU, 0xFFFFFFU, 0x1000000U}) {
        queue(make_packet(8, timestamp, "\xAA", 4));
    }
    ASSERT_TRUE(send_next());
    EXPECT_EQ(arrived(), example_bytes("chunk_timestamps"));
}

TEST_F(chunk_writer, the_format_of_the_packet_is_ignored) {
    RTMP_Packet pkt = make_packet(20, 0, "x", 3);
    pkt.chunk.fmt = 2;
    pkt.chunk.message_length = 99;
    queue(std::move(pkt));
    ASSERT_TRUE(send_next());
    EXPECT_EQ(arrived(), chunked("x", 128));
}

TEST_F(chunk_writer, a_message_without_payload_produces_no_bytes) {
    queue(make_packet(8, 0, ""));
    ASSERT_TRUE(send_next());
    EXPECT_EQ(arrived(), "");
    EXPECT_TRUE(conn.connection_out.empty());
}

// More pieces than one system call takes, and more bytes than the socket buffers: every byte still arrives
// in order.
TEST_F(chunk_writer, a_long_message_in_chunks_of_one_byte_arrives_whole) {
    conn.conn_g_server.chunk_size = 1;
    std::string payload(300000, '\0');
    for (std::size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<char>(i * 7 >> 3);
    }
    queue(make_packet(20, 0, payload, 3));
    const std::string wanted = chunked(payload, 1);
    std::string received(wanted.size(), '\0');
    std::thread reader([&] {
        EXPECT_EQ(recv(peer(conn), received.data(), received.size(), MSG_WAITALL),
                  static_cast<ssize_t>(wanted.size()));
    });
    ASSERT_TRUE(send_next());
    reader.join();
    EXPECT_TRUE(received == wanted);
}

TEST_F(chunk_writer, the_echo_of_a_chunk_size_goes_out_under_the_old_size_and_counts_afterwards) {
    const std::string before(200, 'b');
    queue(make_packet(20, 0, before, 3));
    queue(make_packet(1, 0, std::string("\x00\x00\x00\x02", 4), 2, 0));
    queue(make_packet(20, 0, "12345", 3));
    ASSERT_TRUE(send_next() && send_next());
    EXPECT_EQ(arrived(), chunked(before, 128) +
                             std::string("\x02\x00\x00\x00\x00\x00\x04\x01\x00\x00\x00\x00", 12) +
                             std::string("\x00\x00\x00\x02", 4) + chunked("12345", 2));
    EXPECT_EQ(conn.conn_g_server.chunk_size, 2U);
}

TEST_F(chunk_writer, an_echo_without_memory_is_not_sent_and_keeps_the_old_size) {
    queue(make_packet(1, 0, "", 2, 0));
    ASSERT_TRUE(send_next());
    EXPECT_EQ(arrived(), "");
    EXPECT_EQ(conn.conn_g_server.chunk_size, 128U);
}

TEST_F(chunk_writer, sends_the_packets_in_the_order_of_the_queue) {
    queue(make_packet(20, 0, "1", 3));
    queue(make_packet(8, 0, ""));
    queue(make_packet(20, 0, "2", 3));
    ASSERT_TRUE(send_next());
    EXPECT_EQ(arrived(), chunked("1", 128) + chunked("2", 128));
}

TEST_F(chunk_writer, gives_up_when_the_client_has_closed) {
    shutdown(conn.fd, SHUT_WR);
    queue(make_packet(20, 0, "x", 3));
    EXPECT_FALSE(send_next());
}

TEST_F(chunk_writer, waits_when_nothing_is_queued) {
    EXPECT_TRUE(send_next());
    EXPECT_EQ(arrived(), "");
}

TEST_F(chunk_writer, keeps_no_payload_once_it_is_sent) {
    queue(make_packet(20, 0, "x", 3));
    ASSERT_TRUE(send_next());
    EXPECT_TRUE(conn.out_batch.empty());
}

// The block is laid out for most of the players; the others get the same bytes as if it were laid out
// for them.
TEST_F(chunk_writer, a_shared_payload_reaches_players_of_every_chunk_size) {
    std::string payload;
    for (std::size_t i = 0; i < 2000; ++i) {
        payload += static_cast<char>(i * 7 >> 3);
    }
    for (const std::uint32_t laid_out_for : {128U, 1000U, 1999U, 2000U, 4096U}) {
        for (const std::uint32_t chunk_size : {1U, 127U, 128U, 129U, 200U, 1000U, 1999U, 2000U, 65536U}) {
            const RTMP_Packet pkt = make_packet(20, 0, payload, 3);
            OutgoingPacket outgoing;
            outgoing.copy_header_from(pkt);
            outgoing.shared = SharedPayload::lay_out(pkt.chunk, laid_out_for);
            conn.conn_g_server.chunk_size = chunk_size;
            conn.connection_out.push_back(std::move(outgoing));
            ASSERT_TRUE(send_next());
            EXPECT_TRUE(arrived() == chunked(payload, chunk_size)) << laid_out_for << " " << chunk_size;
        }
    }
}

TEST_F(chunk_writer, shared_payloads_before_an_echo_have_the_old_chunk_size_and_those_after_it_the_new_one) {
    const RTMP_Packet pkt = make_packet(20, 0, std::string(300, 'p'), 3);
    const SharedPayload payload = SharedPayload::lay_out(pkt.chunk, 128);
    const auto queue_share = [&] {
        OutgoingPacket outgoing;
        outgoing.copy_header_from(pkt);
        outgoing.shared = payload.share();
        conn.connection_out.push_back(std::move(outgoing));
    };
    queue_share();
    queue(make_packet(1, 0, std::string("\x00\x00\x00\xC8", 4), 2, 0));
    queue_share();
    ASSERT_TRUE(send_next() && send_next());
    EXPECT_EQ(arrived(), chunked(std::string(300, 'p'), 128) +
                             std::string("\x02\x00\x00\x00\x00\x00\x04\x01\x00\x00\x00\x00", 12) +
                             std::string("\x00\x00\x00\xC8", 4) + chunked(std::string(300, 'p'), 200));
}

TEST_F(chunk_writer, cancellation_at_any_send_repeats_nothing_and_frees_the_waiting_messages) {
    const int small = 4096;
    constexpr std::size_t MESSAGES = 30;
    const std::string payload(1000, 'p');
    std::string wanted;
    for (std::size_t i = 0; i < MESSAGES; ++i) {
        wanted += chunked(payload, 2);
    }
    for (std::size_t read_first = 0; read_first < wanted.size() - 16384; read_first += 1531) {
        RTMPConnection& stuck = add_connection();
        const int peer_of_freed = peer(stuck);
        ASSERT_EQ(setsockopt(stuck.fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
        stuck.conn_g_server.chunk_size = 2;  // A message takes four calls.
        const RTMP_Packet pkt = make_packet(20, 0, payload, 3);
        const SharedPayload shared = SharedPayload::lay_out(pkt.chunk, 128);
        for (std::size_t i = 0; i < MESSAGES; ++i) {
            OutgoingPacket outgoing;
            outgoing.copy_header_from(pkt);
            outgoing.shared = shared.share();
            stuck.connection_out.push_back(std::move(outgoing));
        }
        pthread_t writer{};
        ASSERT_EQ(pthread_create(
                      &writer, nullptr,
                      [](void* argument) -> void* {
                          auto& writers = *static_cast<RTMPConnection*>(argument);
                          while (writers.rtmp_send_packet()) {
                          }
                          return nullptr;
                      },
                      &stuck),
                  0);
        std::string received(wanted.size(), '\0');
        std::size_t length = 0;
        while (length < read_first) {
            const ssize_t ret = recv(peer(stuck), received.data() + length, read_first - length, 0);
            ASSERT_GT(ret, 0);
            length += static_cast<std::size_t>(ret);
        }
        pthread_cancel(writer);
        ASSERT_EQ(pthread_join(writer, nullptr), 0);
        const std::uint64_t counted = stuck.conn_g_client.bytes_total;
        free_connection(stuck.conn_idx);
        for (ssize_t ret = 1; ret > 0; length += static_cast<std::size_t>(ret)) {
            ret = recv(peer_of_freed, received.data() + length, received.size() - length, 0);
            ASSERT_GE(ret, 0);
        }
        EXPECT_TRUE(wanted.starts_with(received.substr(0, length))) << read_first;
        EXPECT_GE(length, counted);
        EXPECT_EQ(shared.payload_bytes(), payload.size()) << "other holders keep it";
    }
}
