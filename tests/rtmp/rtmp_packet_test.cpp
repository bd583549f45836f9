#include "rtmp/rtmp_packet.h"

#include <gtest/gtest.h>

#include <cstring>
#include <utility>

#include "tests/support/assertion_line.h"

namespace {

RTMP_Packet packet_of(std::uint32_t length, unsigned char fill) {
    RTMP_Packet pkt;
    EXPECT_TRUE(pkt.chunk.message.allocate(length));
    std::memset(pkt.chunk.message.data, fill, length);
    return pkt;
}

}  // namespace

TEST(rtmp_packet, a_copy_has_its_own_equal_payload) {
    const RTMP_Packet source = packet_of(300, 0x5A);
    RTMP_Packet copy;
    ASSERT_TRUE(source.chunk.message.copy_to(copy.chunk.message));
    EXPECT_NE(copy.chunk.message.data, source.chunk.message.data);
    EXPECT_FALSE(packet_data_different(source, copy));
}

TEST(rtmp_packet, copying_a_payload_leaves_the_header_unchanged) {
    RTMP_Packet source = packet_of(3, 1);
    source.chunk.timestamp = 77;
    RTMP_Packet copy;
    copy.chunk.timestamp = 5;
    ASSERT_TRUE(source.chunk.message.copy_to(copy.chunk.message));
    EXPECT_EQ(copy.chunk.timestamp, 5U);
}

TEST(rtmp_packet, copying_an_empty_payload_empties_the_destination) {
    const RTMP_Packet empty;
    RTMP_Packet copy = packet_of(10, 1);
    EXPECT_TRUE(empty.chunk.message.copy_to(copy.chunk.message));
    EXPECT_EQ(copy.chunk.message.data, nullptr);
    EXPECT_EQ(copy.chunk.message.data_length, 0U);
}

TEST(rtmp_packet, the_largest_payload_is_copied_and_one_byte_more_is_refused) {
    const RTMP_Packet largest = packet_of(0xFFFFF, 7);
    RTMP_Packet copy;
    EXPECT_TRUE(largest.chunk.message.copy_to(copy.chunk.message));
    EXPECT_EQ(copy.chunk.message.data_length, 0xFFFFFU);

    RTMP_Packet too_large;
    too_large.chunk.message.data = new unsigned char[0x100000]();
    too_large.chunk.message.data_length = 0x100000;
    EXPECT_FALSE(too_large.chunk.message.copy_to(copy.chunk.message));
    EXPECT_EQ(copy.chunk.message.data, nullptr);
    EXPECT_EQ(copy.chunk.message.data_length, 0U);
}

TEST(rtmp_packet, room_is_made_for_up_to_the_largest_payload) {
    RTMP_Packet pkt;
    EXPECT_FALSE(pkt.chunk.message.allocate(0));
    EXPECT_TRUE(pkt.chunk.message.allocate(MAX_PAYLOAD_BYTES));
    EXPECT_FALSE(pkt.chunk.message.allocate(MAX_PAYLOAD_BYTES + 1));
    EXPECT_EQ(pkt.chunk.message.data, nullptr);
}

TEST(rtmp_packet, moving_takes_header_and_payload_and_leaves_no_payload_in_the_source) {
    RTMP_Packet source = packet_of(20, 9);
    source.chunk.timestamp = 1234;
    const unsigned char* const data = source.chunk.message.data;
    RTMP_Packet target = packet_of(5, 1);
    target = std::move(source);
    EXPECT_EQ(target.chunk.timestamp, 1234U);
    EXPECT_EQ(target.chunk.message.data, data);
    EXPECT_EQ(source.chunk.message.data, nullptr);  // NOLINT(bugprone-use-after-move): that is what is tested
    EXPECT_EQ(source.chunk.message.data_length, 0U);
}

TEST(rtmp_packet, header_fields_are_copied_without_the_payload) {
    RTMP_Packet source = packet_of(4, 1);
    source.chunk.fmt = 2;
    source.chunk.stream_id = 6;
    source.chunk.timestamp = 7;
    source.chunk.message_length = 8;
    source.chunk.message_type_id = 9;
    source.chunk.message_stream_id = 10;
    RTMP_Packet copy;
    copy.copy_header_from(source);
    EXPECT_EQ(copy.chunk.fmt, 2);
    EXPECT_EQ(copy.chunk.stream_id, 6U);
    EXPECT_EQ(copy.chunk.timestamp, 7U);
    EXPECT_EQ(copy.chunk.message_length, 8U);
    EXPECT_EQ(copy.chunk.message_type_id, 9);
    EXPECT_EQ(copy.chunk.message_stream_id, 10U);
    EXPECT_EQ(copy.chunk.message.data, nullptr);
}

TEST(rtmp_packet, payloads_differ_in_length_or_in_a_byte) {
    const RTMP_Packet a = packet_of(8, 1);
    RTMP_Packet b = packet_of(8, 1);
    EXPECT_FALSE(packet_data_different(a, b));
    b.chunk.message.data[7] = 2;
    EXPECT_TRUE(packet_data_different(a, b));
    EXPECT_TRUE(packet_data_different(a, packet_of(9, 1)));
}

TEST(rtmp_packet, two_empty_packets_do_not_differ) {
    EXPECT_FALSE(packet_data_different(RTMP_Packet(), RTMP_Packet()));
}

TEST(rtmp_packet_death, a_length_without_data_ends_the_process) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const RTMP_Packet good = packet_of(4, 1);
    RTMP_Packet bad;
    bad.chunk.message.data_length = 4;
    EXPECT_EXIT((void)packet_data_different(bad, good), testing::KilledBySignal(SIGABRT),
                assertion_line("packet_data_different", "a.chunk.message.data != NULL"));
    EXPECT_EXIT((void)packet_data_different(good, bad), testing::KilledBySignal(SIGABRT),
                assertion_line("packet_data_different", "b.chunk.message.data != NULL"));
}
