// A batch of messages that is sent in pieces other than those passed to the system, or that is not
// sent completely.
#include <pthread.h>

#include "tests/support/connection_fixture.h"
#include "tests/support/wrapped_calls.h"

namespace {

// Bytes that differ from place to place and from message to message.
std::string payload_bytes(std::size_t count, std::size_t seed) {
    std::string bytes(count, '\0');
    for (std::size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<char>((i + seed) * 7 >> 2);
    }
    return bytes;
}

class short_send_test : public ConnectionFixture {
  protected:
    short_send_test() { wrapped_calls = {}; }
    ~short_send_test() override { wrapped_calls = {}; }

    // Queues own payloads, and shared ones laid out for the current chunk size and for others, with lengths
    // around its boundaries.
    static void queue_batch(RTMPConnection& conn) {
        add_own(conn, 300);
        add_shared(conn, 300, 128);
        add_shared(conn, 300, 4096);
        add_own(conn, 0);
        add_own(conn, 1);
        add_shared(conn, 128, 128);
        add_shared(conn, 129, 200, 0x1000000);
        add_own(conn, 128);
    }

    // Returns the batch as it is on the wire, sent in one call.
    std::string sent_at_once() {
        RTMPConnection& conn = add_connection();
        queue_batch(conn);
        EXPECT_TRUE(conn.rtmp_send_packet());
        EXPECT_EQ(wrapped_calls.sends.size(), 1U);
        const std::string bytes = arrived(conn);
        // Six headers of 12 bytes, one of 16 for its large timestamp, and payloads with a byte
        // between chunks.
        EXPECT_EQ(bytes.size(), 6U * 12 + 16 + (300 + 2) * 3 + 1 + 128 + (129 + 1) + 128);
        EXPECT_EQ(conn.conn_g_client.bytes_total, bytes.size());
        return bytes;
    }

  private:
    static void add_own(RTMPConnection& conn, std::size_t length) {
        conn.connection_out.push_back(make_packet(20, 0, payload_bytes(length, length), 3));
    }

    static void add_shared(RTMPConnection& conn, std::size_t length, std::uint32_t laid_out_for,
                           std::uint32_t timestamp = 0) {
        const RTMP_Packet pkt = make_packet(9, timestamp, payload_bytes(length, laid_out_for), 6);
        OutgoingPacket outgoing;
        outgoing.copy_header_from(pkt);
        outgoing.shared = SharedPayload::lay_out(pkt.chunk, laid_out_for);
        conn.connection_out.push_back(std::move(outgoing));
    }
};

}  // namespace

TEST_F(short_send_test, that_ends_at_any_byte_of_a_batch_changes_nothing_and_counts_the_bytes_sent) {
    const std::string whole = sent_at_once();
    RTMPConnection& conn = add_connection();
    for (std::size_t cut = 1; cut < whole.size(); ++cut) {
        const std::uint64_t total_before = conn.conn_g_client.bytes_total;
        const std::uint32_t unacked_before = conn.conn_g_client.bytes_unacked;
        std::size_t sends = 0;
        wrapped_calls.sendmsg_takes = [&] {
            const std::size_t left = sends == 0 ? 0 : cut;
            EXPECT_EQ(conn.conn_g_client.bytes_total, total_before + left);
            EXPECT_EQ(conn.conn_g_client.bytes_unacked, unacked_before + left);
            return ++sends == 1 ? cut : whole.size();
        };
        queue_batch(conn);
        ASSERT_TRUE(conn.rtmp_send_packet());
        ASSERT_EQ(sends, 2U);
        ASSERT_TRUE(arrived(conn) == whole) << "cut after byte " << cut;
        ASSERT_EQ(conn.conn_g_client.bytes_total, total_before + whole.size());
        ASSERT_EQ(conn.conn_g_client.bytes_unacked, unacked_before + whole.size());
    }
}

TEST_F(short_send_test, of_any_length_again_and_again_changes_nothing) {
    const std::string whole = sent_at_once();
    RTMPConnection& conn = add_connection();
    for (std::size_t length = 1; length < whole.size(); length += length < 320 ? 1 : 64) {
        std::string received;
        wrapped_calls.sends.clear();
        wrapped_calls.sendmsg_takes = [&] {
            if (wrapped_calls.sends.size() % 100 == 0) {  // Small sends fill the socket before large ones do.
                received += arrived(conn);
            }
            return length;
        };
        queue_batch(conn);
        ASSERT_TRUE(conn.rtmp_send_packet());
        ASSERT_EQ(wrapped_calls.sends.size(), (whole.size() + length - 1) / length);
        ASSERT_TRUE(received + arrived(conn) == whole) << length << " bytes a call";
    }
}

TEST_F(short_send_test, that_is_the_last_before_a_failure_is_counted_and_the_rest_is_not) {
    const std::string whole = sent_at_once();
    for (std::size_t cut = 1; cut < whole.size(); cut += 5) {
        RTMPConnection& conn = add_connection();
        std::size_t sends = 0;
        wrapped_calls.sendmsg_takes = [&] { return ++sends == 1 ? cut : 0; };
        queue_batch(conn);
        ASSERT_FALSE(conn.rtmp_send_packet());
        ASSERT_EQ(arrived(conn), whole.substr(0, cut));
        ASSERT_EQ(conn.conn_g_client.bytes_total, cut);
        (void)printed_by([&] { free_connection(conn.conn_idx); });
    }
}

// The address sanitizer sees what is not freed.
TEST_F(short_send_test, after_which_the_writer_is_cancelled_leaves_the_batch_in_the_connection) {
    const std::string whole = sent_at_once();
    constexpr std::size_t LENGTH = 29;
    for (std::size_t nth = 1; (nth - 1) * LENGTH < whole.size(); ++nth) {
        RTMPConnection& conn = add_connection();
        std::size_t sends = 0;
        wrapped_calls.sendmsg_takes = [&] {
            if (++sends == nth) {
                pthread_cancel(pthread_self());  // The thread ends inside the call.
            }
            return LENGTH;
        };
        queue_batch(conn);
        const std::size_t messages = conn.connection_out.size();
        pthread_t writer{};
        ASSERT_EQ(pthread_create(
                      &writer, nullptr,
                      [](void* argument) -> void* {
                          static_cast<void>(static_cast<RTMPConnection*>(argument)->rtmp_send_packet());
                          return nullptr;
                      },
                      &conn),
                  0);
        void* result = nullptr;
        ASSERT_EQ(pthread_join(writer, &result), 0);
        ASSERT_EQ(result, PTHREAD_CANCELED);
        ASSERT_EQ(arrived(conn), whole.substr(0, (nth - 1) * LENGTH));
        ASSERT_EQ(conn.conn_g_client.bytes_total, (nth - 1) * LENGTH);
        EXPECT_EQ(conn.out_batch.size(), messages);
        EXPECT_TRUE(conn.connection_out.empty());
        (void)printed_by([&] { free_connection(conn.conn_idx); });
    }
}
