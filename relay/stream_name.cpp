#include "relay/stream_name.h"

#include <algorithm>
#include <cctype>

bool is_valid_stream_name(const std::string& name) {
    // The process stays in the "C" locale, where only ASCII letters are alphabetic.
    return std::all_of(name.begin(), name.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte == '_' || (byte >= '0' && byte <= '9') || std::isalpha(byte) != 0;
    });
}
