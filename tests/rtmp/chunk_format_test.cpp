#include "rtmp/chunk_format.h"

#include <gtest/gtest.h>

#include <array>

namespace {

std::string basic_header(std::uint8_t fmt, std::uint32_t id) {
    std::array<unsigned char, MAX_BASIC_HEADER_BYTES> bytes{};
    const std::size_t length = write_basic_header(bytes.data(), fmt, id);
    return {reinterpret_cast<const char*>(bytes.data()), length};
}

std::string message_header(std::uint32_t timestamp) {
    RTMP_Packet pkt;
    pkt.chunk.timestamp = timestamp;
    pkt.chunk.message_type_id = 9;
    pkt.chunk.message_stream_id = 0x01020304;
    pkt.chunk.message_length = 300;
    std::array<unsigned char, MAX_MESSAGE_HEADER_BYTES> bytes{};
    const std::size_t length = write_message_header(bytes.data(), pkt.chunk);
    return {reinterpret_cast<const char*>(bytes.data()), length};
}

// Resolves one header given as text against a state.
RTMP_Packet resolve(std::uint8_t fmt, const std::string& header, ChunkStreamState& state,
                    std::uint32_t extended_timestamp = 0) {
    EXPECT_EQ(header.size(), message_header_bytes(fmt));
    RTMP_Packet pkt;
    resolve_message_header(fmt, reinterpret_cast<const unsigned char*>(header.data()), extended_timestamp,
                           state, pkt.chunk);
    return pkt;
}

const std::string FORMAT_0(
    "\x00\x00\x64"
    "\x00\x01\x2C"
    "\x09"
    "\x01\x00\x00\x00",
    11);

}  // namespace

TEST(chunk_format, basic_headers_have_one_two_or_three_bytes) {
    EXPECT_EQ(basic_header(0, 2), std::string("\x02", 1));
    EXPECT_EQ(basic_header(3, 3), std::string("\xC3", 1));
    EXPECT_EQ(basic_header(0, 63), std::string("\x3F", 1));
    EXPECT_EQ(basic_header(0, 64), std::string("\x00\x00", 2));
    EXPECT_EQ(basic_header(3, 64), std::string("\xC0\x00", 2));
    EXPECT_EQ(basic_header(0, 319), std::string("\x00\xFF", 2));
    EXPECT_EQ(basic_header(0, 320), std::string("\x01\x00\x01", 3));
    EXPECT_EQ(basic_header(3, 320), std::string("\xC1\x00\x01", 3));
    EXPECT_EQ(basic_header(0, 65599), std::string("\x01\xFF\xFF", 3));
}

TEST(chunk_format, message_headers_use_the_extension_from_0xFFFFFF_on) {
    const std::string rest("\x00\x01\x2C\x09\x04\x03\x02\x01", 8);
    EXPECT_EQ(message_header(0xFFFFFE), "\xFF\xFF\xFE" + rest);
    EXPECT_EQ(message_header(0xFFFFFF), "\xFF\xFF\xFF" + rest + std::string("\x00\xFF\xFF\xFF", 4));
    EXPECT_EQ(message_header(0xFFFFFFFF), "\xFF\xFF\xFF" + rest + "\xFF\xFF\xFF\xFF");
}

TEST(chunk_format, format_0_sets_everything_and_clears_the_delta) {
    ChunkStreamState state;
    state.timestamp_delta = 40;
    const RTMP_Packet pkt = resolve(0, FORMAT_0, state);
    EXPECT_EQ(pkt.chunk.timestamp, 100U);
    EXPECT_EQ(pkt.chunk.message_length, 300U);
    EXPECT_EQ(pkt.chunk.message_type_id, 9);
    EXPECT_EQ(pkt.chunk.message_stream_id, 1U);
    EXPECT_EQ(state.timestamp_delta, 0U);
}

TEST(chunk_format, format_0_takes_the_extended_timestamp_where_its_field_is_full) {
    std::string header = FORMAT_0;
    header.replace(0, 3, "\xFF\xFF\xFF");
    ChunkStreamState state;
    EXPECT_TRUE(has_extended_timestamp(0, reinterpret_cast<const unsigned char*>(header.data())));
    EXPECT_EQ(resolve(0, header, state, 256).chunk.timestamp, 256U);
    EXPECT_FALSE(has_extended_timestamp(1, reinterpret_cast<const unsigned char*>(header.data())));
}

TEST(chunk_format, format_1_keeps_the_message_stream_id) {
    ChunkStreamState state;
    (void)resolve(0, FORMAT_0, state);
    const RTMP_Packet pkt = resolve(1, std::string("\x00\x00\x28\x00\x00\x05\x08", 7), state);
    EXPECT_EQ(pkt.chunk.timestamp, 140U);
    EXPECT_EQ(pkt.chunk.message_length, 5U);
    EXPECT_EQ(pkt.chunk.message_type_id, 8);
    EXPECT_EQ(pkt.chunk.message_stream_id, 1U);
}

TEST(chunk_format, format_1_on_a_new_chunk_stream_counts_from_zero) {
    ChunkStreamState state;
    const RTMP_Packet pkt = resolve(1, std::string("\x00\x00\x28\x00\x00\x05\x08", 7), state);
    EXPECT_EQ(pkt.chunk.timestamp, 40U);
    EXPECT_EQ(pkt.chunk.message_stream_id, 0U);
}

TEST(chunk_format, format_2_keeps_length_and_type_and_format_3_repeats_the_delta) {
    ChunkStreamState state;
    (void)resolve(0, FORMAT_0, state);
    EXPECT_EQ(resolve(3, "", state).chunk.timestamp, 100U);
    const RTMP_Packet second = resolve(2, std::string("\x00\x00\x21", 3), state);
    EXPECT_EQ(second.chunk.timestamp, 133U);
    EXPECT_EQ(second.chunk.message_length, 300U);
    EXPECT_EQ(second.chunk.message_type_id, 9);
    EXPECT_EQ(resolve(3, "", state).chunk.timestamp, 166U);
    EXPECT_EQ(resolve(3, "", state).chunk.timestamp, 199U);
}

TEST(chunk_format, a_full_delta_is_a_plain_number) {
    ChunkStreamState state;
    (void)resolve(0, FORMAT_0, state);
    EXPECT_EQ(resolve(2, "\xFF\xFF\xFF", state).chunk.timestamp, 100U + 0xFFFFFFU);
}

TEST(chunk_format, timestamps_wrap) {
    ChunkStreamState state;
    state.timestamp = 0xFFFFFFF0;
    EXPECT_EQ(resolve(2, std::string("\x00\x00\x20", 3), state).chunk.timestamp, 0x10U);
}
