// Byte strings for tests, and big- and little-endian numbers in them.
//
// The tests deliberately have their own encoders and never use the server's, so each checks the other.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

using Bytes = std::string;

Bytes bytes_of(std::initializer_list<int> values);

// Returns bytes from hex digits, ignoring blanks: from_hex("AF 00 12 10"). Throws on anything else.
Bytes from_hex(std::string_view text);

// Returns text such as "AF 00 12 10", for failure messages and comparisons.
std::string to_hex(std::string_view bytes);

// Encode the low 16, 24 or 32 bits of value.
Bytes be16(std::uint32_t value);
Bytes be24(std::uint32_t value);
Bytes be32(std::uint32_t value);
Bytes le32(std::uint32_t value);

// Decode the 2, 3 or 4 bytes at offset. Throw if they are missing.
std::uint32_t get_be16(std::string_view bytes, std::size_t offset = 0);
std::uint32_t get_be24(std::string_view bytes, std::size_t offset = 0);
std::uint32_t get_be32(std::string_view bytes, std::size_t offset = 0);
std::uint32_t get_le32(std::string_view bytes, std::size_t offset = 0);

// Returns bytes that differ from their neighbors and, for each seed, from other patterns.
Bytes pattern_bytes(std::size_t length, std::uint32_t seed = 1);
