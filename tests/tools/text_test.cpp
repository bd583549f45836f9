#include "tools/v9_rtmp_ctl/text.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

TEST(text, untrusted_bytes_are_shown_in_hex) {
    EXPECT_EQ(escape_untrusted("cam_1 ~!"), "cam_1 ~!");
    EXPECT_EQ(escape_untrusted("\x1b[2J"), "\\x1B[2J");
    EXPECT_EQ(escape_untrusted("a\tb\nc\x7f\x80\xff"), "a\\x09b\\x0Ac\\x7F\\x80\\xFF");
    EXPECT_EQ(escape_untrusted(std::string_view("\0", 1)), "\\x00");
    EXPECT_EQ(escape_untrusted("\xc3\xa4"), "\\xC3\\xA4");
    EXPECT_EQ(escape_untrusted("\x1f\x20\x7e"), "\\x1F \x7e");
    EXPECT_EQ(escape_untrusted(""), "");
}

TEST(text, a_cut_text_is_marked_as_cut) {
    EXPECT_EQ(cut_text("stream", 6), "stream");
    EXPECT_EQ(cut_text("stream", 5), "stre~");
    EXPECT_EQ(cut_text("stream", 1), "~");
    EXPECT_EQ(cut_text("stream", 0), "");
    EXPECT_EQ(cut_text("", 0), "");
}

TEST(text, a_quoted_text_is_escaped_and_cut_to_64_columns) {
    EXPECT_EQ(quote_untrusted("a\nb"), "'a\\x0Ab'");
    EXPECT_EQ(quote_untrusted(std::string(64, 'x')), "'" + std::string(64, 'x') + "'");
    EXPECT_EQ(quote_untrusted(std::string(65, 'x')), "'" + std::string(63, 'x') + "~'");
}

TEST(text, bytes_are_shown_in_iec_units) {
    struct Row {
        std::uint64_t bytes;
        const char* text;
    };
    const Row rows[] = {
        {0, "0 B"},
        {1, "1 B"},
        {1023, "1023 B"},
        {1024, "1.0 KiB"},
        {1536, "1.5 KiB"},
        {1048523, "1023.9 KiB"},
        {1048525, "1.0 MiB"},  // never 1024.0 KiB
        {1048576, "1.0 MiB"},
        {1073741824, "1.0 GiB"},
        {1099511627776, "1.0 TiB"},
        {1125899906842624, "1.0 PiB"},
        {1152921504606846976, "1.0 EiB"},
        {std::numeric_limits<std::uint64_t>::max(), "16.0 EiB"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(format_bytes(row.bytes), row.text) << row.bytes;
    }
    EXPECT_EQ(format_bytes(std::nullopt), "-");
}

TEST(text, rates_are_shown_per_second) {
    EXPECT_EQ(format_rate(0.0), "0 B/s");
    EXPECT_EQ(format_rate(0.4), "0 B/s");
    EXPECT_EQ(format_rate(1023.4), "1023 B/s");
    EXPECT_EQ(format_rate(1023.6), "1.0 KiB/s");  // never 1024 B/s
    EXPECT_EQ(format_rate(2.5 * 1024 * 1024), "2.5 MiB/s");
    EXPECT_EQ(format_rate(std::nullopt), "-");
    EXPECT_EQ(format_rate(-1.0), "-");
    EXPECT_EQ(format_rate(std::nan("")), "-");
    EXPECT_EQ(format_rate(std::numeric_limits<double>::infinity()), "-");
}

TEST(text, rates_are_shown_in_bits_on_request) {
    EXPECT_EQ(format_rate(0.0, RateUnit::BITS), "0 bit/s");
    EXPECT_EQ(format_rate(124.9, RateUnit::BITS), "999 bit/s");
    EXPECT_EQ(format_rate(124.95, RateUnit::BITS), "1.0 kbit/s");  // never 1000 bit/s
    EXPECT_EQ(format_rate(312500.0, RateUnit::BITS), "2.5 Mbit/s");
    EXPECT_EQ(format_rate(std::nullopt, RateUnit::BITS), "-");
}
