// Reads an input from its beginning. Numbers past the end read as zero.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

class InputBytes {
  public:
    InputBytes(const std::uint8_t* data, std::size_t size)
        : rest(reinterpret_cast<const char*>(data), size) {}

    [[nodiscard]] bool empty() const { return rest.empty(); }

    // At most c bytes.
    std::string_view take(std::size_t c) {
        const std::string_view taken = rest.substr(0, c);
        rest.remove_prefix(taken.size());
        return taken;
    }

    std::string_view take_all() { return take(rest.size()); }

    // Big-endian.
    std::uint8_t u8() { return static_cast<std::uint8_t>(number(1)); }
    std::uint16_t u16() { return static_cast<std::uint16_t>(number(2)); }
    std::uint32_t u32() { return number(4); }

  private:
    std::uint32_t number(std::size_t bytes) {
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < bytes; ++i) {
            value = value << 8 | (i < rest.size() ? static_cast<unsigned char>(rest[i]) : 0U);
        }
        rest.remove_prefix(std::min(bytes, rest.size()));
        return value;
    }

    std::string_view rest;
};
