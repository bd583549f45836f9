// Reads and writes big-endian numbers of 2, 3 and 4 bytes and little-endian numbers of 4 bytes.
//
// No function checks bounds: the caller must first test for room with `end - s < n`. Pure; any thread.
#pragma once

#include <cstdint>

constexpr std::uint32_t read_be16(const unsigned char* s) {
    return std::uint32_t{s[0]} << 8 | s[1];
}

constexpr std::uint32_t read_be24(const unsigned char* s) {
    return std::uint32_t{s[0]} << 16 | std::uint32_t{s[1]} << 8 | s[2];
}

constexpr std::uint32_t read_be32(const unsigned char* s) {
    return std::uint32_t{s[0]} << 24 | std::uint32_t{s[1]} << 16 | std::uint32_t{s[2]} << 8 | s[3];
}

constexpr std::uint32_t read_le32(const unsigned char* s) {
    return std::uint32_t{s[3]} << 24 | std::uint32_t{s[2]} << 16 | std::uint32_t{s[1]} << 8 | s[0];
}

// Each writes the low 16, 24 or 32 bits of value. Higher bits are dropped.
constexpr void write_be16(unsigned char* d, std::uint32_t value) {
    d[0] = static_cast<unsigned char>(value >> 8);
    d[1] = static_cast<unsigned char>(value);
}

constexpr void write_be24(unsigned char* d, std::uint32_t value) {
    d[0] = static_cast<unsigned char>(value >> 16);
    write_be16(d + 1, value);
}

constexpr void write_be32(unsigned char* d, std::uint32_t value) {
    write_be16(d, value >> 16);
    write_be16(d + 2, value);
}

constexpr void write_le32(unsigned char* d, std::uint32_t value) {
    d[0] = static_cast<unsigned char>(value);
    d[1] = static_cast<unsigned char>(value >> 8);
    d[2] = static_cast<unsigned char>(value >> 16);
    d[3] = static_cast<unsigned char>(value >> 24);
}
