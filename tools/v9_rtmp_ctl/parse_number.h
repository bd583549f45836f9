// Parses numbers in untrusted text. Pure.
#pragma once

#include <charconv>
#include <string_view>
#include <system_error>

// Whether the whole text is a number in digits of the base, without a sign. If not, number is unspecified.
template <typename Number>
[[nodiscard]] bool parse_number(std::string_view text, Number& number, int base = 10) {
    const char* const end = text.data() + text.size();
    const auto [parsed_end, error] = std::from_chars(text.data(), end, number, base);
    return error == std::errc() && parsed_end == end;
}
