// Addresses and hosts as written in HTTP and on command lines. Pure.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The parts of "host:port", "[host]:port" or "host".
struct HostAndPort {
    std::string host;  // without brackets, in lower case
    bool is_ipv6 = false;
    std::optional<std::uint16_t> port;
};
[[nodiscard]] std::optional<HostAndPort> split_host(std::string_view text);

// Whether the host is an address, not a name.
[[nodiscard]] bool is_address(const HostAndPort& split);

struct ListenAddress {
    sockaddr_storage address{};
    socklen_t length = 0;
};

// "127.0.0.1:9935" or "[::1]:9935". Empty for anything else.
[[nodiscard]] std::optional<ListenAddress> parse_listen_address(std::string_view text);

// The inverse of parse_listen_address.
[[nodiscard]] std::string listen_address_text(const sockaddr_storage& address);

// Returns the text with ASCII letters in lower case.
[[nodiscard]] std::string lower_case(std::string_view text);
