#include "tools/v9_rtmp_ctl/keys.h"

#include <array>
#include <cstddef>
#include <utility>

namespace {

constexpr char ESCAPE_BYTE = '\x1b';

constexpr std::array<std::pair<std::string_view, KeyKind>, 12> SEQUENCES{{
    {"[A", KeyKind::UP},
    {"OA", KeyKind::UP},
    {"[B", KeyKind::DOWN},
    {"OB", KeyKind::DOWN},
    {"[5~", KeyKind::PAGE_UP},
    {"[6~", KeyKind::PAGE_DOWN},
    {"[H", KeyKind::HOME},
    {"OH", KeyKind::HOME},
    {"[1~", KeyKind::HOME},
    {"[F", KeyKind::END},
    {"OF", KeyKind::END},
    {"[4~", KeyKind::END},
}};

// Returns the length of the sequence after an escape byte: a bracket or 'O', parameters, one final letter
// or '~'.
std::size_t sequence_length(std::string_view bytes) {
    if (bytes.empty() || (bytes[0] != '[' && bytes[0] != 'O')) {
        return 0;
    }
    std::size_t length = 1;
    while (length < bytes.size() && bytes[length] >= 0x20 && bytes[length] < 0x40) {
        ++length;
    }
    return length < bytes.size() ? length + 1 : length;
}

Key decode_sequence(std::string_view sequence) {
    for (const auto& [text, kind] : SEQUENCES) {
        if (text == sequence) {
            return {kind, 0};
        }
    }
    return {KeyKind::OTHER, 0};
}

Key decode_byte(char c) {
    switch (c) {
        case '\r':
        case '\n':
            return {KeyKind::ENTER, 0};
        case '\t':
            return {KeyKind::TAB, 0};
        case '\x7f':
        case '\b':
            return {KeyKind::BACKSPACE, 0};
        case ESCAPE_BYTE:
            return {KeyKind::ESCAPE, 0};
        default:
            return c >= 0x20 && c <= 0x7E ? Key{KeyKind::CHARACTER, c} : Key{KeyKind::OTHER, 0};
    }
}

}  // namespace

std::vector<Key> decode_keys(std::string_view bytes) {
    std::vector<Key> keys;
    while (!bytes.empty()) {
        const char first = bytes[0];
        bytes.remove_prefix(1);
        const std::size_t length = first == ESCAPE_BYTE ? sequence_length(bytes) : 0;
        keys.push_back(length == 0 ? decode_byte(first) : decode_sequence(bytes.substr(0, length)));
        bytes.remove_prefix(length);
    }
    return keys;
}
