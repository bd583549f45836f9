#include "base/bytes.h"

#include <gtest/gtest.h>

#include <array>

TEST(bytes, numbers_are_read_in_the_named_byte_order) {
    const std::array<unsigned char, 4> wire{0x81, 0x92, 0xA3, 0xB4};
    EXPECT_EQ(read_be16(wire.data()), 0x8192U);
    EXPECT_EQ(read_be24(wire.data()), 0x8192A3U);
    EXPECT_EQ(read_be32(wire.data()), 0x8192A3B4U);
    EXPECT_EQ(read_le32(wire.data()), 0xB4A39281U);
}

TEST(bytes, numbers_are_written_in_the_named_byte_order_without_their_high_bits) {
    std::array<unsigned char, 5> wire{};
    write_be16(wire.data(), 0x77818293U);
    EXPECT_EQ(wire, (std::array<unsigned char, 5>{0x82, 0x93, 0, 0, 0}));
    write_be24(wire.data(), 0x77818293U);
    EXPECT_EQ(wire, (std::array<unsigned char, 5>{0x81, 0x82, 0x93, 0, 0}));
    write_be32(wire.data(), 0x81929394U);
    EXPECT_EQ(wire, (std::array<unsigned char, 5>{0x81, 0x92, 0x93, 0x94, 0}));
    write_le32(wire.data(), 0x81929394U);
    EXPECT_EQ(wire, (std::array<unsigned char, 5>{0x94, 0x93, 0x92, 0x81, 0}));
}
