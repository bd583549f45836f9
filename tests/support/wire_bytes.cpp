#include "tests/support/wire_bytes.h"

#include <cctype>

#include "tests/support/test_failure.h"

namespace {

constexpr std::string_view DIGITS = "0123456789ABCDEF";

std::uint32_t big_endian(std::string_view bytes, std::size_t offset, std::size_t width) {
    if (offset > bytes.size() || bytes.size() - offset < width) {
        throw TestFailure("a number of " + std::to_string(width) + " bytes at " + std::to_string(offset) +
                          " of " + std::to_string(bytes.size()) + " bytes");
    }
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < width; ++i) {
        value = value << 8 | static_cast<unsigned char>(bytes[offset + i]);
    }
    return value;
}

int hex_digit(char c) {
    const std::size_t value = DIGITS.find(static_cast<char>(std::toupper(static_cast<unsigned char>(c))));
    if (value == std::string_view::npos) {
        throw TestFailure(std::string("not a hex digit: ") + c);
    }
    return static_cast<int>(value);
}

}  // namespace

Bytes bytes_of(std::initializer_list<int> values) {
    Bytes result;
    for (const int value : values) {
        result.push_back(static_cast<char>(value));
    }
    return result;
}

Bytes from_hex(std::string_view text) {
    Bytes digits(text);
    std::erase_if(digits, [](unsigned char c) { return std::isspace(c) != 0; });
    if (digits.size() % 2 != 0) {
        throw TestFailure("an odd number of hex digits");
    }
    Bytes result;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        result.push_back(static_cast<char>(hex_digit(digits[i]) * 16 + hex_digit(digits[i + 1])));
    }
    return result;
}

std::string to_hex(std::string_view bytes) {
    std::string result;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (!result.empty()) {
            result += ' ';
        }
        result += DIGITS[byte >> 4];
        result += DIGITS[byte & 15];
    }
    return result;
}

Bytes be16(std::uint32_t value) {
    return bytes_of({static_cast<int>(value >> 8 & 0xFF), static_cast<int>(value & 0xFF)});
}

Bytes be24(std::uint32_t value) {
    return bytes_of({static_cast<int>(value >> 16 & 0xFF)}) + be16(value);
}

Bytes be32(std::uint32_t value) {
    return be16(value >> 16) + be16(value);
}

Bytes le32(std::uint32_t value) {
    const Bytes big = be32(value);
    return {big.rbegin(), big.rend()};
}

std::uint32_t get_be16(std::string_view bytes, std::size_t offset) {
    return big_endian(bytes, offset, 2);
}
std::uint32_t get_be24(std::string_view bytes, std::size_t offset) {
    return big_endian(bytes, offset, 3);
}
std::uint32_t get_be32(std::string_view bytes, std::size_t offset) {
    return big_endian(bytes, offset, 4);
}

std::uint32_t get_le32(std::string_view bytes, std::size_t offset) {
    const std::uint32_t big = big_endian(bytes, offset, 4);
    return big >> 24 | (big >> 8 & 0xFF00U) | (big << 8 & 0xFF0000U) | big << 24;
}

Bytes pattern_bytes(std::size_t length, std::uint32_t seed) {
    Bytes result(length, '\0');
    std::uint32_t state = seed * 2654435761U + 1;
    for (char& c : result) {
        state = state * 1664525U + 1013904223U;
        c = static_cast<char>(state >> 24);
    }
    return result;
}
