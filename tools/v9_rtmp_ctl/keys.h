// The bytes a terminal sends for the keys of watch. Pure.
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
    char character = 0;  // for CHARACTER: 0x20 to 0x7E

    bool operator==(const Key&) const = default;
};

// Returns the keys in the bytes of one read. A lone escape byte at the end is the Escape key, not the start
// of a sequence, because terminals send a sequence at once.
[[nodiscard]] std::vector<Key> decode_keys(std::string_view bytes);
