// Set chunk size, window acknowledgement size, acknowledgements, and the server's read-ahead.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/dropped_client.h"
#include "tests/support/expected_replies.h"
#include "tests/support/media_bytes.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint32_t HANDSHAKE_BYTES = 3073;

OutMessage control(std::uint8_t type, Bytes payload) {
    return {.type = type, .payload = std::move(payload), .csid = CONTROL_CSID};
}

// Sends messages after the handshake and computes which acknowledgements are due: after the first message,
// and after each window of bytes.
class CountingSender {
  public:
    explicit CountingSender(RtmpClient& rtmp_client) : client(rtmp_client) {}

    void send(const OutMessage& message) {
        const Bytes bytes = chunked(message);
        client.send_bytes(bytes);
        count(static_cast<std::uint32_t>(bytes.size()));
    }

    void announce_window(std::uint32_t size) {
        window = size;
        send(control(MSG_WINDOW_ACK_SIZE, be32(size)));
    }

    const std::vector<std::uint32_t>& due() const { return acknowledgements_due; }

  private:
    void count(std::uint32_t wire_bytes) {
        unacked += wire_bytes;
        total += wire_bytes;
        const bool full = window != 0 && window <= unacked;
        if (full || first_is_owed) {
            acknowledgements_due.push_back(total);
        }
        if (full) {
            unacked = std::min(window, unacked - window);
        }
        first_is_owed = false;
    }

    RtmpClient& client;
    bool first_is_owed = true;
    std::uint32_t window = 1;
    std::uint32_t unacked = HANDSHAKE_BYTES;
    std::uint32_t total = HANDSHAKE_BYTES;
    std::vector<std::uint32_t> acknowledgements_due;
};

std::vector<std::uint32_t> acknowledgements(const std::vector<RtmpMessage>& messages) {
    std::vector<std::uint32_t> values;
    for (const RtmpMessage& message : messages) {
        if (message.type == MSG_ACKNOWLEDGEMENT) {
            values.push_back(get_be32(message.payload));
        }
    }
    return values;
}

// Returns everything up to the reply to a final command, whose acknowledgement comes before or after
// the reply.
std::vector<RtmpMessage> messages_until_answered(RtmpClient& client) {
    client.send_command(amf_string("releaseStream") + amf_number(99) + amf_null());
    std::vector<RtmpMessage> messages;
    do {
        messages.push_back(client.read_any_message());
    } while (messages.back().payload != plain_result(amf_number(99)));
    return messages;
}

void expect_refused(const OutMessage& message, const std::vector<std::string>& lines) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    (void)client.round_trip();
    const LineMark mark = server.mark();
    client.send_message(message);
    expect_end_of_reading(server, client, mark, lines);
}

}  // namespace

TEST(acknowledgement, the_first_one_counts_the_handshake_and_the_first_message) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    client.send_connect();
    EXPECT_EQ(client.bytes_sent() - HANDSHAKE_BYTES,
              chunked({.payload = amf_string("connect") + amf_number(1) +
                                  amf_object({{"app", amf_string("ombrex-live")}})})
                  .size());
    RtmpMessage message = client.read_any_message();
    if (message.type == MSG_COMMAND) {
        message = client.read_any_message();
    }
    EXPECT_EQ(to_hex(message.raw), to_hex(from_hex("02 00 00 00 00 00 04 03 00 00 00 00") +
                                          be32(static_cast<std::uint32_t>(client.bytes_sent()))));
}

TEST(acknowledgement, every_message_gets_one_by_default) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    std::vector<std::uint32_t> expected;
    Bytes burst;
    const auto add = [&](const Bytes& bytes) {
        burst += bytes;
        expected.push_back(static_cast<std::uint32_t>(HANDSHAKE_BYTES + burst.size()));
    };
    add(chunked({.type = 99, .payload = "a"}));
    add(basic_header(3, 3) + "b");
    add(basic_header(3, 40));  // an empty message, one byte on the wire
    add(chunked({.type = 99, .payload = pattern_bytes(1000), .csid = 300}));
    add(chunked(control(MSG_ACKNOWLEDGEMENT, be32(5))));
    add(chunked(control(MSG_USER_CONTROL, from_hex("00 03 00 00 00 01 00 00 03 E8"))));
    client.send_bytes(burst);
    for (const std::uint32_t value : expected) {
        EXPECT_EQ(client.expect_acknowledgement(), value);
    }
}

TEST(acknowledgement, a_window_message_opens_its_window_before_it_is_acknowledged) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    client.send_message({.type = 99, .payload = "a"});
    (void)client.expect_acknowledgement();
    client.send_message(control(MSG_WINDOW_ACK_SIZE, be32(2500000)));
    EXPECT_THAT(acknowledgements(messages_until_answered(client)), IsEmpty());
    server.wait_for_line("RTMP: Window ack size 2500000");
    client.send_message(control(MSG_WINDOW_ACK_SIZE, be32(1)));
    EXPECT_EQ(client.expect_acknowledgement(), client.bytes_sent());
}

TEST(acknowledgement, the_first_message_gets_one_even_when_it_opens_a_window) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    client.send_message(control(MSG_WINDOW_ACK_SIZE, be32(2500000)));
    EXPECT_EQ(client.expect_acknowledgement(), client.bytes_sent());
    EXPECT_THAT(acknowledgements(messages_until_answered(client)), IsEmpty());
}

TEST(acknowledgement, a_window_of_0_ends_them) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    client.send_message({.type = 99, .payload = "a"});
    (void)client.expect_acknowledgement();
    client.send_message(control(MSG_WINDOW_ACK_SIZE, be32(0)));
    server.wait_for_line("RTMP: Window ack size 0");
    client.send_message({.type = 99, .payload = pattern_bytes(100000)});
    EXPECT_THAT(acknowledgements(messages_until_answered(client)), IsEmpty());
}

TEST(acknowledgement, a_window_message_of_less_than_4_bytes_is_ignored) {
    ServerProcess server({"--no-def-ack"});
    RtmpClient client = handshaken_client();
    (void)client.round_trip();
    const LineMark mark = server.mark();
    for (const std::size_t length : {0UL, 1UL, 3UL}) {
        client.send_message(control(MSG_WINDOW_ACK_SIZE, Bytes("\0\0\0\1", 4).substr(0, length)));
    }
    EXPECT_THAT(acknowledgements(messages_until_answered(client)), IsEmpty());
    EXPECT_THAT(server.lines_since(mark), IsEmpty());
    client.send_message(control(MSG_WINDOW_ACK_SIZE, from_hex("00 00 00 01 FF")));
    EXPECT_EQ(client.expect_acknowledgement(), client.bytes_sent());
    EXPECT_THAT(server.lines_since(mark), ElementsAre("RTMP: Window ack size 1"));
}

TEST(acknowledgement, is_sent_twice_for_five_megabytes_in_a_window_of_two_and_a_half) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    CountingSender sender(client);
    sender.send({.type = 99, .payload = "first"});
    sender.announce_window(2500000);
    // With this size, the rest of the first window makes the second one due a message earlier.
    const OutMessage media{.type = MSG_VIDEO, .payload = pattern_bytes(70000), .csid = 6, .timestamp = 1};
    for (int i = 0; i < 75; ++i) {
        sender.send(media);
    }
    ASSERT_EQ(sender.due().size(), 3U);
    EXPECT_GE(sender.due()[1], 2500000U);
    EXPECT_GE(sender.due()[2], 5000000U);
    EXPECT_EQ(acknowledgements(messages_until_answered(client)), sender.due());
}

TEST(acknowledgement, no_more_than_one_window_is_carried_over) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    CountingSender sender(client);
    sender.send({.type = 99, .payload = "first"});
    sender.announce_window(1000);
    for (const std::size_t length :
         {100UL, 5000UL, 1UL, 1UL, 900UL, 2500UL, 980UL, 1UL, 500UL, 500UL, 500UL}) {
        sender.send({.type = 99, .payload = pattern_bytes(length)});
    }
    ASSERT_GE(sender.due().size(), 5U);
    sender.announce_window(0);
    EXPECT_EQ(acknowledgements(messages_until_answered(client)), sender.due());
}

TEST(acknowledgement, with_no_def_ack_none_are_sent_until_a_window_is_announced) {
    ServerProcess server({"--no-def-ack"});
    RtmpClient client = handshaken_client();
    client.send_message({.type = 99, .payload = pattern_bytes(200000)});
    EXPECT_THAT(acknowledgements(messages_until_answered(client)), IsEmpty());
    client.send_message(control(MSG_WINDOW_ACK_SIZE, be32(1)));
    EXPECT_EQ(client.expect_acknowledgement(), client.bytes_sent());
}

TEST(acknowledgement, the_handshake_counts_towards_the_first_window) {
    ServerProcess server({"--no-def-ack"});
    const std::uint32_t all_bytes = HANDSHAKE_BYTES + 16;
    {
        RtmpClient client = handshaken_client();
        client.send_message(control(MSG_WINDOW_ACK_SIZE, be32(all_bytes)));
        EXPECT_EQ(client.expect_acknowledgement(), all_bytes);
    }
    RtmpClient client = handshaken_client();
    client.send_message(control(MSG_WINDOW_ACK_SIZE, be32(all_bytes + 1)));
    client.send_bytes(basic_header(3, 40));
    EXPECT_EQ(client.expect_acknowledgement(), all_bytes + 1) << "the next byte fills the window";
}

TEST(set_chunk_size, is_echoed_and_then_acknowledged) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    client.send_message(
        {.type = MSG_SET_CHUNK_SIZE, .payload = be32(4096), .csid = CONTROL_CSID, .timestamp = 777});
    EXPECT_EQ(to_hex(client.read_any_message().raw), "02 00 03 09 00 00 04 01 00 00 00 00 00 00 10 00");
    EXPECT_EQ(client.expect_acknowledgement(), client.bytes_sent());
    server.wait_for_line("RTMP: New chunk size 4096 accepted");
}

TEST(set_chunk_size, bytes_after_the_number_are_echoed_too) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    const Bytes payload = be32(200) + pattern_bytes(150);
    client.send_message(control(MSG_SET_CHUNK_SIZE, payload));
    EXPECT_EQ(client.read_any_message().raw, chunked(control(MSG_SET_CHUNK_SIZE, payload)));
    server.wait_for_line("RTMP: New chunk size 200 accepted");
}

TEST(set_chunk_size, the_smallest_and_the_largest_are_accepted) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    for (const std::uint32_t size : {1U, 4194304U}) {
        client.set_chunk_size(size);
        (void)client.expect_message(MSG_SET_CHUNK_SIZE);
        server.wait_for_line("RTMP: New chunk size " + std::to_string(size) + " accepted");
        client.send_message({.type = 99, .payload = pattern_bytes(3000)});
        EXPECT_TRUE(client.round_trip().empty());
    }
}

TEST(set_chunk_size, 0_and_sizes_above_the_largest_are_refused) {
    for (const std::uint32_t size : {0U, 4194305U, 0x80000000U, 0xFFFFFFFFU}) {
        expect_refused(control(MSG_SET_CHUNK_SIZE, be32(size)),
                       {"RTMP: New chunk size " + std::to_string(size) + " rejected", "Chunk size rejected"});
    }
}

TEST(set_chunk_size, less_than_4_bytes_are_refused) {
    for (const std::size_t length : {0UL, 1UL, 2UL, 3UL}) {
        expect_refused(control(MSG_SET_CHUNK_SIZE, be32(0x01010101).substr(0, length)),
                       {"Chunk size rejected"});
    }
}

TEST(set_chunk_size, is_not_recognized_on_other_chunk_streams_and_message_streams) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    client.send_message({.type = MSG_SET_CHUNK_SIZE, .payload = be32(4096), .csid = 3});
    client.send_message(
        {.type = MSG_SET_CHUNK_SIZE, .payload = be32(4096), .csid = CONTROL_CSID, .stream_id = 1});
    // Both directions still use 128-byte chunks.
    const Bytes id = amf_string(std::string(500, 'x'));
    client.send_command(amf_string("releaseStream") + id + amf_null());
    EXPECT_EQ(client.expect_message(MSG_COMMAND).raw, chunked({.payload = plain_result(id)}));
    EXPECT_EQ(server.err().count_starting("RTMP: New chunk size"), 0U);
}

TEST(control_messages, acknowledgements_and_user_control_are_silently_accepted) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    (void)client.round_trip();
    const LineMark mark = server.mark();
    for (const std::uint8_t type : {MSG_ACKNOWLEDGEMENT, MSG_USER_CONTROL}) {
        client.send_message(control(type, be32(1)));
        client.send_message(control(type, ""));
    }
    EXPECT_TRUE(client.round_trip().empty());
    EXPECT_THAT(server.lines_since(mark), IsEmpty());
}

TEST(control_messages, any_other_type_ends_the_reading) {
    struct Row {
        std::uint8_t type;
        std::string shown;
    };
    const std::vector<Row> rows = {{6, "0x06"}, {2, "0x02"},  {0, "0x00"},
                                   {8, "0x08"}, {20, "0x14"}, {255, "0xff"}};
    for (const Row& row : rows) {
        expect_refused(control(row.type, be32(1)),
                       {"RTMP: unexpected control stream message type " + row.shown});
    }
}

TEST(control_messages, a_command_may_come_on_the_control_stream_with_a_message_stream_id) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    client.send_command(amf_string("releaseStream") + amf_number(5) + amf_null(), CONTROL_CSID, 1);
    const RtmpMessage reply = client.expect_message(MSG_COMMAND);
    EXPECT_EQ(reply.csid, CONTROL_CSID);
    EXPECT_EQ(reply.stream_id, 1U);
}

TEST(control_messages, reading_stops_while_8_messages_wait_to_be_handled) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    // Acknowledgements in transit must not be counted below.
    (void)messages_until_answered(publisher);
    constexpr std::uint32_t HOLD_MS = 2000;
    publisher.send_audio(1, from_hex("AF 01 00"));
    const std::uint64_t acknowledged_before_hold = publisher.bytes_sent();
    std::uint64_t eighth_end = 0;
    for (int i = 1; i <= 20; ++i) {
        publisher.send_audio(1 + HOLD_MS, from_hex("AF 01 00"));
        if (i == 8) {
            eighth_end = publisher.bytes_sent();
        }
    }
    const TimePoint sent = SteadyClock::now();
    std::vector<std::uint32_t> during_hold;
    while (std::optional<RtmpMessage> message = publisher.try_read_message(Milliseconds{HOLD_MS / 2})) {
        if (message->type == MSG_ACKNOWLEDGEMENT && get_be32(message->payload) > acknowledged_before_hold) {
            during_hold.push_back(get_be32(message->payload));
        }
    }
    ASSERT_LT(elapsed_since(sent), Milliseconds{HOLD_MS - 200}) << "the hold is over too early to tell";
    EXPECT_EQ(during_hold.size(), 8U);
    ASSERT_FALSE(during_hold.empty());
    EXPECT_EQ(during_hold.back(), eighth_end);
    // Once the clock has caught up, the rest is read and acknowledged.
    std::uint32_t last = 0;
    while (last < publisher.bytes_sent()) {
        last = publisher.expect_acknowledgement();
    }
    EXPECT_GE(elapsed_since(sent), Milliseconds{HOLD_MS - 100});
}

TEST(control_messages, a_burst_is_acknowledged_message_by_message_to_the_byte) {
    ServerProcess server;
    RtmpClient publisher = publishing_client("cam1");
    publisher.round_trip();
    std::vector<std::uint64_t> ends;
    Bytes burst;
    for (std::uint32_t i = 0; i < 300; ++i) {
        burst += chunked({.type = MSG_VIDEO, .payload = avc_inter_frame(i, 20 + i * 7), .csid = 6});
        ends.push_back(publisher.bytes_sent() + burst.size());
    }
    publisher.send_bytes(burst);
    for (const std::uint64_t end : ends) {
        EXPECT_EQ(publisher.expect_acknowledgement(), end);
    }
}
