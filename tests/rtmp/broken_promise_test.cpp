// How the transport is guarded against failures of the system and of its own parts, each of which breaks a
// promise here.
#include <cstdlib>
#include <functional>
#include <new>
#include <thread>

#include "rtmp/chunk_header_reader.h"
#include "rtmp/control_messages.h"
#include "rtmp/packet_dump.h"
#include "rtmp/packet_queues.h"
#include "tests/support/assertion_line.h"
#include "tests/support/connection_fixture.h"
#include "tests/support/wrapped_calls.h"

namespace {

struct BrokenPromises {
    bool resolver_takes_any_continuation = false;
    std::function<void()> at_allocation;
};

BrokenPromises broken;

}  // namespace

// The server's file with its function under another name. The one below takes its place.
#define resolve_chunk_header resolve_chunk_header_as_promised
#include "rtmp/chunk_header_reader.cpp"
#undef resolve_chunk_header

bool resolve_chunk_header(RTMPConnection& conn, RTMP_Packet& pkt, ChunkPosition position) {
    return (position == ChunkPosition::FURTHER && broken.resolver_takes_any_continuation) ||
           resolve_chunk_header_as_promised(conn, pkt, position);
}

void* operator new[](std::size_t bytes, const std::nothrow_t& /*unused*/) noexcept {
    if (broken.at_allocation) {
        broken.at_allocation();
    }
    return std::calloc(1, bytes);  // What is not received yet is dumped as zeros.
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t /*bytes*/) noexcept {
    std::free(memory);
}
void* operator new[](std::size_t bytes) {
    void* const memory = std::malloc(bytes);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

namespace {

class broken_promise_test : public ConnectionFixture {
  protected:
    broken_promise_test() { keep_all_promises(); }
    ~broken_promise_test() override { keep_all_promises(); }

    RTMPConnection& conn = add_connection();

    void client_sends(const std::string& bytes) {
        ASSERT_EQ(write(peer(conn), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    bool read_message() {
        conn.in_pkt.chunk.message.release();
        return conn.rtmp_read_packet(conn.in_pkt);
    }

    void queue(RTMP_Packet&& pkt) { conn.connection_out.push_back(std::move(pkt)); }

    void fail_unlocking() { wrapped_calls.failing_unlock = &conn.mutex.handle; }

  private:
    static void keep_all_promises() {
        broken = {};
        wrapped_calls = {};
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    }
};

using broken_promise_death_test = broken_promise_test;

// Format 0 on chunk stream 3: timestamp 0, type 20, message stream 0.
std::string header_of(unsigned char length_high, unsigned char length_low) {
    std::string header("\x03\x00\x00\x00\x00\x00\x00\x14\x00\x00\x00\x00", 12);
    header[5] = static_cast<char>(length_high);
    header[6] = static_cast<char>(length_low);
    return header;
}

const std::string HEADER_OF_300 = header_of(1, 44);

}  // namespace

TEST_F(broken_promise_test,
       of_a_resolver_that_takes_any_continuation_ends_the_reading_with_both_headers_dumped) {
    broken.resolver_takes_any_continuation = true;
    RTMP_Packet initial = make_packet(20, 0, std::string(128, 'a') + std::string(172, '\0'), 3, 0);
    const std::string initial_dump = printed_by([&] { dump_packet(initial); });
    EXPECT_TRUE(
        initial_dump.starts_with("RTMP packet: chunk fmt=0 stream_id=3 timestamp=0 message_length=300 "
                                 "message_type_id=20 message_stream_id=0\n  Data (300 bytes)\n"));
    client_sends(HEADER_OF_300 + std::string(128, 'a') + "\x85");
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE(read_message()); }),
              "RTMP packet error: Chunk not finished, expected type 3. 128 / 300 complete\n"
              "Initial:\n" +
                  initial_dump +
                  "Last:\n"
                  "RTMP packet: chunk fmt=2 stream_id=5 timestamp=0 message_length=0 message_type_id=0 "
                  "message_stream_id=0\n"
                  "----\n");
}

TEST_F(broken_promise_test, of_a_chunk_stream_id_that_no_bytes_spell_ends_the_reading) {
    for (const std::uint32_t id : {0U, 1U}) {
        const RTMP_Packet pkt = make_packet(1, 0, "", id, 0);
        EXPECT_EQ(printed_by([&] { EXPECT_FALSE(act_on_control_message(conn, pkt)); }),
                  "RTMP: control stream unexpected chunk stream ID " + std::to_string(id) + "\n");
    }
    const RTMP_Packet elsewhere = make_packet(1, 0, "", 1, 7);
    EXPECT_EQ(printed_by([&] { EXPECT_TRUE(act_on_control_message(conn, elsewhere)); }), "");
}

TEST_F(broken_promise_test, of_a_socket_fails_the_handshake_at_the_block_that_is_not_sent) {
    constexpr std::size_t BLOCK_BYTES = 1536;
    const char* const texts[] = {"S0 fail\n", "S1 fail\n", "S2 fail\n"};
    for (int failing = 0; failing < 3; ++failing) {
        RTMPConnection& other = add_connection();
        const std::string hello = "\x03" + std::string(BLOCK_BYTES, 'c');
        ASSERT_EQ(write(peer(other), hello.data(), hello.size()), static_cast<ssize_t>(hello.size()));
        int sends = 0;
        wrapped_calls.send_result = [&](ssize_t sent) { return sends++ == failing ? -1 : sent; };
        EXPECT_EQ(printed_by([&] { EXPECT_FALSE(other.handshake()); }), texts[failing]);
    }
}

TEST_F(broken_promise_death_test, of_an_allocation_with_less_room_than_asked_for_ends_the_process) {
    client_sends(header_of(0, 3) + "abc");
    broken.at_allocation = [&] { conn.in_pkt.chunk.message_length = 4; };
    EXPECT_EXIT((void)read_message(), testing::KilledBySignal(SIGABRT),
                assertion_line("read_payload", "pkt.chunk.message.data_length >= toread"));
}

TEST_F(broken_promise_death_test, of_a_chunk_size_that_becomes_0_inside_a_message_ends_the_process) {
    client_sends(HEADER_OF_300 + std::string(128, 'a') + "\xC3" + std::string(128, 'b'));
    wrapped_calls.recv_result = [&](ssize_t received) {
        if (received == 128) {
            conn.conn_g_client.chunk_size = 0;
        }
        return received;
    };
    EXPECT_EXIT((void)read_message(), testing::KilledBySignal(SIGABRT),
                assertion_line("read_chunk", "todo != uint32_t(0)"));
}

TEST_F(broken_promise_death_test, of_a_payload_that_shrinks_while_it_is_read_ends_the_process) {
    client_sends(HEADER_OF_300 + std::string(128, 'a') + "\xC3" + std::string(128, 'b'));
    wrapped_calls.recv_result = [&](ssize_t received) {
        if (received == 128) {
            conn.in_pkt.chunk.message.data_length = 200;
        }
        return received;
    };
    EXPECT_EXIT((void)read_message(), testing::KilledBySignal(SIGABRT),
                assertion_line("read_chunk", "(dp+todo) <= dpf"));
}

TEST_F(broken_promise_death_test,
       of_a_kernel_that_reports_more_received_bytes_than_requested_ends_the_process) {
    client_sends("\x03");
    wrapped_calls.recv_result = [](ssize_t received) { return received + 1; };
    EXPECT_EXIT((void)read_message(), testing::KilledBySignal(SIGABRT),
                assertion_line("cread", "(size_t)ret <= c"));
    conn.read_ahead.enabled = true;
    wrapped_calls.recv_result = [](ssize_t /*received*/) { return ReadAhead::CAPACITY_BYTES + 1; };
    EXPECT_EXIT((void)read_message(), testing::KilledBySignal(SIGABRT),
                assertion_line("fill", "(size_t)ret <= c"));
}

TEST_F(broken_promise_death_test, of_a_kernel_that_reports_more_sent_bytes_than_requested_ends_the_process) {
    wrapped_calls.send_result = [](ssize_t sent) { return sent + 1; };
    wrapped_calls.sendmsg_result = [](ssize_t sent) { return sent + 1; };
    EXPECT_EXIT((void)conn.cwrite("x", 1), testing::KilledBySignal(SIGABRT),
                assertion_line("cwrite", "(size_t)ret <= c"));
    queue(make_packet(20, 0, "x"));
    EXPECT_EXIT((void)conn.rtmp_send_packet(), testing::KilledBySignal(SIGABRT),
                assertion_line("flush", "(size_t)ret <= c"));
}

TEST_F(broken_promise_death_test, of_an_output_chunk_size_of_0_ends_the_process) {
    conn.conn_g_server.chunk_size = 0;
    queue(make_packet(20, 0, "x"));
    EXPECT_EXIT((void)conn.rtmp_send_packet(), testing::KilledBySignal(SIGABRT),
                assertion_line("add_chunk", "todo != size_t(0)"));
}

TEST_F(broken_promise_death_test, of_a_payload_that_shrinks_while_it_is_sent_ends_the_process) {
    conn.conn_g_server.chunk_size = 1;
    queue(make_packet(20, 0, std::string(2000, 'x')));
    // The first 256 pieces leave in the middle of the message.
    wrapped_calls.sendmsg_result = [&](ssize_t sent) {
        conn.out_batch.front().chunk.message.data_length = 600;
        return sent;
    };
    EXPECT_EXIT((void)conn.rtmp_send_packet(), testing::KilledBySignal(SIGABRT),
                assertion_line("add_chunk", "(s+todo) <= sf"));
}

TEST_F(broken_promise_death_test, of_an_echoed_chunk_size_without_four_bytes_ends_the_process) {
    queue(make_packet(1, 0, "abc", 2, 0));
    EXPECT_EXIT((void)conn.rtmp_send_packet(), testing::KilledBySignal(SIGABRT),
                assertion_line("adopt_chunk_size", "sent.message.data_length >= 4"));
}

TEST_F(broken_promise_death_test, of_a_payload_that_changes_while_it_is_copied_ends_the_process) {
    RTMP_Packet source = make_packet(9, 0, "abcd");
    RTMP_Packet copy;
    broken.at_allocation = [&] { source.chunk.message.data_length = 3; };
    EXPECT_EXIT((void)source.chunk.message.copy_to(copy.chunk.message), testing::KilledBySignal(SIGABRT),
                assertion_line("copy_to", "dst.data_length == data_length"));
}

TEST_F(broken_promise_death_test, of_an_unlock_ends_the_process_wherever_a_queue_is_used) {
    struct Use {
        const char* function;
        std::function<void()> action;
    };
    const std::vector<Use> uses{
        {"take_outgoing", [&] { (void)conn.rtmp_send_packet(); }},
        {"add_to_incoming_queue", [&] { (void)conn.add_to_incoming_queue(make_packet(9, 0, "x")); }},
        {"queue_acknowledgement", [&] { (void)queue_acknowledgement(conn, 1); }},
        {"queue_outgoing", [&] { (void)queue_outgoing(conn, make_packet(9, 0, "x")); }},
        {"look_at_incoming_queue", [&] { (void)wait_for_room_in_incoming_queue(conn); }},
    };
    fail_unlocking();
    for (const Use& use : uses) {
        EXPECT_EXIT(use.action(), testing::KilledBySignal(SIGABRT),
                    assertion_line(use.function, "connection_io_unlock()"));
    }
}
