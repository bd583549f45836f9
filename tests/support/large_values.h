// The largest and deepest AMF0 values that fit in a message.
#pragma once

#include <string_view>

#include "tests/support/amf_bytes.h"

// Nested objects with one member each. The end markers are omitted, which is allowed.
inline Bytes open_nest(std::size_t levels) {
    Bytes result = bytes_of({AMF_OBJECT});
    result.reserve(3 * levels);
    for (std::size_t i = 1; i < levels; ++i) {
        result.append("\0\0\x03", 3);
    }
    return result;
}

inline Bytes closed_nest(std::size_t levels) {
    Bytes result = open_nest(levels);
    for (std::size_t i = 0; i < levels; ++i) {
        result.append("\0\0\x09", 3);
    }
    return result;
}

// Members with keys of three letters and digits, and null values.
inline Bytes many_members(std::size_t count, bool ascending) {
    constexpr std::string_view DIGITS = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    Bytes result = bytes_of({AMF_OBJECT});
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t n = ascending ? i : count - 1 - i;
        const Bytes key = {DIGITS[n / 62 / 62], DIGITS[n / 62 % 62], DIGITS[n % 62]};
        result += amf_key(key) + amf_null();
    }
    return result + amf_end();
}
