// Valid uses of chunk headers, and errors that end the connection. A createStream reply carries the chunk
// stream, timestamp and message stream of its request, so it shows how the server read a header.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/dropped_client.h"
#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

namespace {

using testing::ElementsAre;

// A request that is answered at any time, connected or not. Extra bytes after it are ignored.
Bytes request(std::size_t payload_bytes = 0) {
    Bytes payload = amf_string("createStream") + amf_number(2) + amf_null();
    if (payload_bytes > payload.size()) {
        payload += pattern_bytes(payload_bytes - payload.size());
    }
    return payload;
}

const std::size_t REQUEST_BYTES = request().size();

struct Header {
    std::uint32_t csid;
    std::uint32_t timestamp;
    std::uint32_t stream_id;
    bool operator==(const Header&) const = default;
};

void PrintTo(const Header& header, std::ostream* out) {
    *out << "chunk stream " << header.csid << ", timestamp " << header.timestamp << ", message stream "
         << header.stream_id;
}

Header answer(RtmpClient& client) {
    const RtmpMessage message = client.expect_message(MSG_COMMAND);
    return {message.csid, message.timestamp, message.stream_id};
}

// 64 ids, none of them a control stream: 1- and 2-byte forms.
std::uint32_t nth_csid(std::uint32_t n) {
    return 3 + n;
}

}  // namespace

TEST(chunk_reader, every_form_of_chunk_stream_id_is_understood) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    struct Row {
        Bytes header;
        std::uint32_t csid;
    };
    const std::vector<Row> rows = {
        {from_hex("03"), 3},        {from_hex("3F"), 63},        {from_hex("00 00"), 64},
        {from_hex("00 FF"), 319},   {from_hex("01 00 01"), 320}, {from_hex("01 FF FF"), 65599},
        {from_hex("01 00 00"), 64}, {from_hex("01 FF 00"), 319},
    };
    for (const Row& row : rows) {
        client.send_bytes(row.header + message_header({.payload = request()}) + request());
        EXPECT_EQ(answer(client), (Header{row.csid, 0, 0})) << to_hex(row.header);
    }
}

TEST(chunk_reader, a_full_header_carries_all_fields) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    client.send_bytes(from_hex("05 01 02 03 00 00") + bytes_of({static_cast<int>(REQUEST_BYTES)}) +
                      from_hex("14 78 56 34 12") + request());
    EXPECT_EQ(answer(client), (Header{5, 0x010203, 0x12345678}));
}

TEST(chunk_reader, shorter_headers_take_the_rest_from_the_message_before) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    const auto send = [&](int fmt, std::uint32_t timestamp, std::uint32_t csid = 5,
                          std::uint32_t stream_id = 77) {
        client.send_message(
            {.payload = request(), .csid = csid, .timestamp = timestamp, .stream_id = stream_id, .fmt = fmt});
        return answer(client);
    };
    EXPECT_EQ(send(0, 1000), (Header{5, 1000, 77}));
    EXPECT_EQ(send(1, 50), (Header{5, 1050, 77}));
    EXPECT_EQ(send(2, 7), (Header{5, 1057, 77}));
    EXPECT_EQ(send(3, 0), (Header{5, 1064, 77})) << "the delta once more";
    EXPECT_EQ(send(3, 0), (Header{5, 1071, 77}));
    EXPECT_EQ(send(0, 20, 6, 78), (Header{6, 20, 78})) << "another chunk stream has a state of its own";
    EXPECT_EQ(send(2, 1), (Header{5, 1072, 77}));
    EXPECT_EQ(send(1, 1, 6), (Header{6, 21, 78}));
    EXPECT_EQ(send(0, 5), (Header{5, 5, 77}));
    EXPECT_EQ(send(3, 0), (Header{5, 5, 77})) << "a full header leaves no delta";
}

TEST(chunk_reader, a_header_may_change_length_and_type_alone) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    client.send_message({.payload = request(300), .csid = 9, .timestamp = 40});
    EXPECT_EQ(answer(client), (Header{9, 40, 0}));
    client.send_message({.type = 99, .payload = "abc", .csid = 9, .timestamp = 1, .fmt = 1});
    client.send_message({.payload = "def", .csid = 9, .timestamp = 1, .fmt = 2});
    client.send_message({.payload = request(), .csid = 9, .timestamp = 1, .fmt = 1});
    EXPECT_EQ(answer(client), (Header{9, 43, 0}));
}

TEST(chunk_reader, a_full_header_may_have_an_extended_timestamp) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    client.send_bytes(from_hex("03 FF FF FF 00 00") + bytes_of({static_cast<int>(REQUEST_BYTES)}) +
                      from_hex("14 00 00 00 00 00 00 01 00") + request());
    EXPECT_EQ(answer(client), (Header{3, 256, 0}));
    for (const std::uint32_t timestamp : {0xFFFFFEU, 0xFFFFFFU, 0x1000000U, 0xFFFFFFFFU}) {
        client.send_message({.payload = request(), .timestamp = timestamp});
        EXPECT_EQ(answer(client), (Header{3, timestamp, 0}));
    }
}

TEST(chunk_reader, shorter_headers_never_have_an_extended_timestamp) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    client.send_message({.payload = request(), .timestamp = 10});
    EXPECT_EQ(answer(client), (Header{3, 10, 0}));
    client.send_message({.payload = request(), .timestamp = 0xFFFFFF, .fmt = 1});
    EXPECT_EQ(answer(client), (Header{3, 10 + 0xFFFFFF, 0}));
    client.send_message({.payload = request(), .timestamp = 0xFFFFFF, .fmt = 2});
    EXPECT_EQ(answer(client), (Header{3, 10 + 2 * 0xFFFFFF, 0}));
    client.send_message({.payload = request(), .fmt = 3});
    EXPECT_EQ(answer(client), (Header{3, 10 + 3 * 0xFFFFFF, 0}));
    // Continuations do not repeat it either.
    client.send_message({.payload = request(300), .timestamp = 0x1234567});
    EXPECT_EQ(answer(client), (Header{3, 0x1234567, 0}));
}

TEST(chunk_reader, timestamps_wrap_around) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    client.send_message({.payload = request(), .timestamp = 0xFFFFFFF0});
    EXPECT_EQ(answer(client).timestamp, 0xFFFFFFF0U);
    client.send_message({.payload = request(), .timestamp = 0x20, .fmt = 2});
    EXPECT_EQ(answer(client).timestamp, 0x10U);
}

TEST(chunk_reader, a_shorter_header_on_a_new_chunk_stream_starts_from_zero) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    client.send_message({.payload = request(), .csid = 20, .timestamp = 5, .fmt = 1});
    EXPECT_EQ(answer(client), (Header{20, 5, 0}));
    client.send_message({.payload = request(), .csid = 20, .fmt = 3});
    EXPECT_EQ(answer(client), (Header{20, 10, 0}));
    // Formats 2 and 3 take length 0 and type 0 from it: an empty message that is ignored.
    client.send_bytes(basic_header(2, 21) + be24(9) + basic_header(3, 22));
    EXPECT_TRUE(client.round_trip().empty());
}

TEST(chunk_reader, a_format_3_header_on_an_unused_control_stream_is_a_control_message_of_type_0) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    (void)client.round_trip();
    const LineMark mark = server.mark();
    client.send_bytes(from_hex("C2"));
    expect_end_of_reading(server, client, mark, {"RTMP: unexpected control stream message type 0x00"});
}

TEST(chunk_reader, a_long_message_is_continued_with_format_3) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    for (const std::size_t length : {127UL, 128UL, 129UL, 255UL, 256UL, 257UL, 300UL, 5000UL}) {
        const Bytes message = chunked({.payload = request(length), .csid = 7});
        ASSERT_EQ(message.size(), 12 + length + (length - 1) / 128);
        client.send_bytes(message);
        EXPECT_EQ(answer(client), (Header{7, 0, 0})) << length;
    }
}

TEST(chunk_reader, a_continuation_of_another_format_ends_the_reading) {
    for (const int fmt : {0, 1, 2}) {
        ServerProcess server;
        RtmpClient client = handshaken_client();
        (void)client.round_trip();
        const LineMark mark = server.mark();
        const Bytes payload = request(300);
        const OutMessage message{.payload = payload, .csid = 3};
        client.send_bytes(basic_header(0, 3) + message_header(message) + payload.substr(0, 128) +
                          basic_header(3, 3) + payload.substr(128, 128) + basic_header(fmt, 3));
        expect_end_of_reading(server, client, mark,
                              {"fmt=" + std::to_string(fmt) + " and not first packet!"});
    }
}

TEST(chunk_reader, the_chunk_stream_id_of_a_continuation_is_ignored) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    const Bytes payload = request(600);
    Bytes bytes = basic_header(0, 8) + message_header({.payload = payload}) + payload.substr(0, 128);
    const std::vector<Bytes> continuations = {from_hex("C3"), from_hex("C0 10"), from_hex("C1 20 30"),
                                              from_hex("C2")};
    for (std::size_t i = 0; i < continuations.size(); ++i) {
        bytes += continuations[i] + payload.substr(128 * (i + 1), 128);
    }
    client.send_bytes(bytes);
    EXPECT_EQ(answer(client), (Header{8, 0, 0}));
}

TEST(chunk_reader, an_empty_message_is_accepted_and_does_nothing) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    for (const std::uint8_t type : {MSG_COMMAND, MSG_AUDIO, MSG_VIDEO, std::uint8_t{99}}) {
        client.send_message({.type = type});
    }
    EXPECT_TRUE(client.round_trip().empty());
    EXPECT_EQ(server.count("AMF0 error command"), 0U);
}

TEST(chunk_reader, a_message_of_1048575_bytes_is_accepted) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    client.send_message({.type = 99, .payload = pattern_bytes(0xFFFFF)});
    EXPECT_TRUE(client.round_trip().empty());
}

TEST(chunk_reader, a_message_of_1048576_bytes_is_refused_by_its_header) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    (void)client.round_trip();
    const LineMark mark = server.mark();
    client.send_bytes(basic_header(0, 3) +
                      message_header({.timestamp = 21, .stream_id = 22, .length = 0x100000}));
    expect_end_of_reading(server, client, mark,
                          {"Failed to alloc pkt data",
                           "RTMP packet: chunk fmt=0 stream_id=3 timestamp=21 message_length=1048576 "
                           "message_type_id=20 message_stream_id=22"});
}

TEST(chunk_reader, the_largest_length_is_refused_with_any_format) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    (void)client.round_trip();
    const LineMark mark = server.mark();
    client.send_bytes(basic_header(1, 70) + message_header({.timestamp = 3, .fmt = 1, .length = 0xFFFFFF}));
    expect_end_of_reading(server, client, mark,
                          {"Failed to alloc pkt data",
                           "RTMP packet: chunk fmt=1 stream_id=70 timestamp=3 message_length=16777215 "
                           "message_type_id=20 message_stream_id=0"});
}

TEST(chunk_reader, the_64th_chunk_stream_is_served_and_any_header_after_it_is_refused) {
    for (const std::uint32_t next_csid : {nth_csid(64), nth_csid(0)}) {
        ServerProcess server;
        RtmpClient client = handshaken_client();
        for (std::uint32_t n = 0; n < 63; ++n) {
            client.send_bytes(basic_header(3, nth_csid(n)));
        }
        client.send_message({.payload = request(), .csid = nth_csid(63)});
        EXPECT_EQ(answer(client).csid, nth_csid(63));
        const LineMark mark = server.mark();
        client.send_bytes(basic_header(3, next_csid));
        expect_end_of_reading(server, client, mark, {"RTMP: Too many streams"});
    }
}

TEST(chunk_reader, a_long_message_on_the_64th_chunk_stream_fails_at_its_continuation) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    for (std::uint32_t n = 0; n < 62; ++n) {
        client.send_bytes(basic_header(3, nth_csid(n)));
    }
    client.send_message({.payload = request(300), .csid = nth_csid(62)});
    EXPECT_EQ(answer(client).csid, nth_csid(62)) << "on the 63rd it is still taken";
    const LineMark mark = server.mark();
    client.send_message({.payload = request(300), .csid = nth_csid(63)});
    expect_end_of_reading(server, client, mark, {"RTMP: Too many streams"});
}

TEST(chunk_reader, continuations_do_not_count_as_chunk_streams) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    const std::size_t length = 128 * 80;
    const Bytes payload = request(length);
    Bytes bytes = basic_header(0, 3) + message_header({.payload = payload}) + payload.substr(0, 128);
    for (std::uint32_t i = 1; i < 80; ++i) {
        bytes += basic_header(3, 100 + i) + payload.substr(std::size_t{128} * i, 128);
    }
    client.send_bytes(bytes);
    EXPECT_EQ(answer(client), (Header{3, 0, 0}));
    EXPECT_TRUE(client.round_trip().empty());
}

TEST(chunk_reader, bytes_may_come_one_at_a_time) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    client.send_in_pieces(chunked({.payload = request(300), .csid = 400, .timestamp = 0x1000000}), 1);
    EXPECT_EQ(answer(client), (Header{400, 0x1000000, 0}));
}

TEST(chunk_reader, a_close_anywhere_in_a_message_prints_no_error_of_its_own) {
    const Bytes message = chunked({.payload = request(200), .csid = 400, .timestamp = 0x1000000});
    ServerProcess server;
    for (const std::size_t sent :
         {1UL, 2UL, 3UL, 10UL, 14UL, 16UL, 18UL, 100UL, 146UL, 147UL, 149UL, 200UL}) {
        ASSERT_LT(sent, message.size());
        RtmpClient client = handshaken_client();
        (void)client.round_trip();
        const LineMark mark = server.mark();
        client.send_bytes(message.substr(0, sent));
        client.half_close();
        expect_end_of_reading(server, client, mark, {});
    }
}

TEST(chunk_reader, messages_of_other_types_are_silently_accepted) {
    ServerProcess server;
    RtmpClient client = handshaken_client();
    (void)client.round_trip();
    const LineMark mark = server.mark();
    for (const int type : {0, 1, 2, 3, 4, 5, 6, 7, 10, 15, 16, 17, 19, 21, 22, 255}) {
        client.send_message({.type = static_cast<std::uint8_t>(type), .payload = "\x01\x02\x03\x04\x05"});
    }
    EXPECT_TRUE(client.round_trip().empty());
    EXPECT_THAT(server.lines_since(mark), ElementsAre());
}

TEST(chunk_reader, a_received_message_is_dumped_with_dbg_pkt) {
    ServerProcess server({"--dbg-pkt"});
    RtmpClient client = handshaken_client();
    server.wait_for_line("RTMP handshake complete");
    client.send_message({.type = 99,
                         .payload = from_hex("00 1F 20 41 7E 7F 80 FF 30 31 32 33 34 35 36 37 38"),
                         .csid = 320,
                         .timestamp = 16777216,
                         .stream_id = 4294967295});
    server.wait_for_consecutive_lines({
        "RTMP packet: chunk fmt=0 stream_id=320 timestamp=16777216 message_length=17 message_type_id=99 "
        "message_stream_id=4294967295",
        "  Data (17 bytes)",
        "    00 1F 20 41 7E 7F 80 FF 30 31 32 33 34 35 36 37   .. A~...01234567",
        "    38                                                8               ",
    });
}

TEST(chunk_reader, an_empty_message_and_a_short_header_are_dumped_as_they_are) {
    ServerProcess server({"--dbg-pkt"});
    RtmpClient client = handshaken_client();
    client.send_message({.type = 99, .csid = 9, .timestamp = 5});
    client.send_message({.type = 98, .payload = "A", .csid = 9, .timestamp = 6, .fmt = 1});
    client.send_bytes(basic_header(3, 9) + "B");
    server.wait_for_line(
        "RTMP packet: chunk fmt=0 stream_id=9 timestamp=5 message_length=0 message_type_id=99 "
        "message_stream_id=0");
    server.wait_for_consecutive_lines({
        "RTMP packet: chunk fmt=1 stream_id=9 timestamp=11 message_length=1 message_type_id=98 "
        "message_stream_id=0",
        "  Data (1 bytes)",
        "    41                                                A               ",
    });
    server.wait_for_consecutive_lines({
        "RTMP packet: chunk fmt=3 stream_id=9 timestamp=17 message_length=1 message_type_id=98 "
        "message_stream_id=0",
        "  Data (1 bytes)",
        "    42                                                B               ",
    });
}

TEST(chunk_reader, audio_and_video_are_not_dumped_even_with_dbg_pkt) {
    ServerProcess server({"--dbg-pkt"});
    RtmpClient client = handshaken_client();
    client.send_audio(1, from_hex("AF 01 00"));
    client.send_video(1, from_hex("17 01 00"));
    (void)client.round_trip();
    for (const std::string& line : server.lines_since()) {
        EXPECT_EQ(line.find("message_type_id=8 "), std::string::npos);
        EXPECT_EQ(line.find("message_type_id=9 "), std::string::npos);
    }
}
