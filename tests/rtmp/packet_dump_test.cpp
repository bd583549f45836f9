#include "rtmp/packet_dump.h"

#include <gtest/gtest.h>

#include "tests/support/connection_fixture.h"

namespace {

std::string dump_of(const RTMP_Packet& pkt) {
    testing::internal::CaptureStderr();
    dump_packet(pkt);
    return testing::internal::GetCapturedStderr();
}

}  // namespace

TEST(packet_dump, a_packet_without_data_is_its_header_line) {
    RTMP_Packet pkt;
    pkt.chunk.fmt = 3;
    pkt.chunk.stream_id = 65599;
    pkt.chunk.timestamp = 4294967295U;
    pkt.chunk.message_length = 1048576;
    pkt.chunk.message_type_id = 20;
    pkt.chunk.message_stream_id = 4294967294U;
    EXPECT_EQ(dump_of(pkt),
              "RTMP packet: chunk fmt=3 stream_id=65599 timestamp=4294967295 message_length=1048576 "
              "message_type_id=20 message_stream_id=4294967294\n");
}

TEST(packet_dump, a_17_byte_payload_is_two_rows_of_which_the_second_is_padded) {
    const std::string payload(
        "\x00\x1F\x20~\x7F\xFF"
        "ABCDEFGHIJk",
        17);
    EXPECT_EQ(dump_of(make_packet(18, 5, payload, 9, 1)),
              "RTMP packet: chunk fmt=0 stream_id=9 timestamp=5 message_length=17 message_type_id=18 "
              "message_stream_id=1\n"
              "  Data (17 bytes)\n"
              "    00 1F 20 7E 7F FF 41 42 43 44 45 46 47 48 49 4A   .. ~..ABCDEFGHIJ\n"
              "    6B " +
                  std::string(15 * 3, ' ') + "  k" + std::string(15, ' ') + "\n");
}

TEST(packet_dump, a_16_byte_payload_is_one_row) {
    EXPECT_EQ(dump_of(make_packet(9, 0, "0123456789abcdef")),
              "RTMP packet: chunk fmt=0 stream_id=4 timestamp=0 message_length=16 message_type_id=9 "
              "message_stream_id=1\n"
              "  Data (16 bytes)\n"
              "    30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66   0123456789abcdef\n");
}

TEST(packet_dump, data_of_no_length_is_announced_without_rows) {
    RTMP_Packet pkt = make_packet(9, 0, "x");
    pkt.chunk.message.data_length = 0;
    EXPECT_TRUE(dump_of(pkt).ends_with("message_stream_id=1\n  Data (0 bytes)\n"));
}

TEST(packet_dump, the_largest_payload_is_dumped_whole) {
    const std::string text = dump_of(make_packet(9, 0, std::string(MAX_PAYLOAD_BYTES, 'x')));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2 + 65536);
}
