#include "relay/stream_name.h"

#include <gtest/gtest.h>

#include <string>

TEST(stream_name, of_ascii_letters_digits_and_underscores_is_valid) {
    for (const char* const name : {"cam_01", "A", "z", "0", "9", "_", "abcXYZ_0123456789"}) {
        EXPECT_TRUE(is_valid_stream_name(name)) << name;
    }
}

TEST(stream_name, may_be_empty) {
    EXPECT_TRUE(is_valid_stream_name(""));
}

TEST(stream_name, may_be_as_long_as_a_message_can_carry) {
    std::string name(1048575, 'a');
    EXPECT_TRUE(is_valid_stream_name(name));
    name.back() = '-';
    EXPECT_FALSE(is_valid_stream_name(name));
}

TEST(stream_name, may_contain_exactly_63_byte_values) {
    for (int value = 0; value < 256; ++value) {
        const bool valid = value == '_' || (value >= '0' && value <= '9') || (value >= 'A' && value <= 'Z') ||
                           (value >= 'a' && value <= 'z');
        const std::string byte(1, static_cast<char>(value));
        EXPECT_EQ(is_valid_stream_name(byte), valid) << value;
        EXPECT_EQ(is_valid_stream_name("cam" + byte), valid) << value;
        EXPECT_EQ(is_valid_stream_name(byte + "cam"), valid) << value;
    }
}
