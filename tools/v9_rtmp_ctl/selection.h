// Selects the connections a command applies to, by stream name, address and mode. Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/v9_rtmp_ctl/connections.h"

// Whether the text is a pattern: it contains '*' (any bytes, or none) or '?' (any one byte). The server
// accepts no stream name that contains one.
[[nodiscard]] bool is_pattern(std::string_view text);

// A pattern matches names; any other text matches only itself. No pattern matches the empty name, which means
// no stream.
[[nodiscard]] bool matches_name(std::string_view pattern, std::string_view name);

// An address with or without a port, or a prefix such as 203.0.113.0/24.
struct AddressRange {
    std::uint32_t network = 0;
    std::uint32_t mask = 0;
    std::string port;  // empty: any

    bool operator==(const AddressRange&) const = default;
};

[[nodiscard]] std::optional<AddressRange> parse_address_range(std::string_view text);

// Whether the range contains the address, which is written as in the listing: "203.0.113.7:50000".
[[nodiscard]] bool matches_address(const AddressRange& range, std::string_view address);

// A connection matches if it matches one entry of each kind given.
struct Selection {
    std::vector<std::string> streams;  // names or patterns
    std::vector<AddressRange> addresses;
    std::optional<std::string> mode;  // "publish", "play" or "none"

    [[nodiscard]] bool is_everything() const { return streams.empty() && addresses.empty() && !mode; }
};

[[nodiscard]] bool matches(const Selection& selection, const Connection& connection);

// Removes the connections that do not match the selection.
void pick(const Selection& selection, std::vector<Connection>& connections);
