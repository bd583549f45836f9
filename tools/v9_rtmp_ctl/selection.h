// Which connections a command concerns: picked by stream name, by address and by mode. Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/v9_rtmp_ctl/connections.h"

// Whether a name pattern has '*' (any bytes, also none) or '?' (any one byte) in it. No stream name that the
// server accepts has one.
[[nodiscard]] bool is_pattern(std::string_view text);

// A pattern matches names; every other text matches itself alone. The empty name, which stands for no stream,
// is matched by no pattern.
[[nodiscard]] bool matches_name(std::string_view pattern, std::string_view name);

// An address, with or without a port, or a prefix such as 203.0.113.0/24.
struct AddressRange {
    std::uint32_t network = 0;
    std::uint32_t mask = 0;
    std::string port;  // empty: any

    bool operator==(const AddressRange&) const = default;
};

[[nodiscard]] std::optional<AddressRange> parse_address_range(std::string_view text);

// Whether an address of the listing, "203.0.113.7:50000", lies in the range.
[[nodiscard]] bool matches_address(const AddressRange& range, std::string_view address);

// Of each kind that is given, one has to match.
struct Selection {
    std::vector<std::string> streams;  // names or patterns
    std::vector<AddressRange> addresses;
    std::optional<std::string> mode;  // "publish", "play" or "none"

    [[nodiscard]] bool is_everything() const { return streams.empty() && addresses.empty() && !mode; }
};

[[nodiscard]] bool matches(const Selection& selection, const Connection& connection);

// Removes what the selection does not match.
void pick(const Selection& selection, std::vector<Connection>& connections);
