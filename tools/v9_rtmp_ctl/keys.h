// What a terminal sends for the keys that watch knows. Pure.
#pragma once

#include <string_view>
#include <vector>

enum class KeyKind {
    CHARACTER,
    ENTER,
    ESCAPE,
    BACKSPACE,
    TAB,
    UP,
    DOWN,
    PAGE_UP,
    PAGE_DOWN,
    HOME,
    END,
    OTHER
};

struct Key {
    KeyKind kind = KeyKind::OTHER;
    char character = 0;  // of CHARACTER: 0x20 to 0x7E

    bool operator==(const Key&) const = default;
};

// The keys in what one read gave. A lone escape byte at its end is the key, not the beginning of a sequence:
// terminals send a sequence at once.
[[nodiscard]] std::vector<Key> decode_keys(std::string_view bytes);
