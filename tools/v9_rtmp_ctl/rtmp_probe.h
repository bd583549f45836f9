// A small RTMP client that checks the server, with a handshake only or with a short stream from its own
// publisher to its own player. It implements just enough RTMP for that.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

struct ProbeResult {
    std::optional<std::string> problem;  // empty on success
    std::uint64_t took_us = 0;
};

// The host and port of "HOST:PORT". An IPv6 address stands in brackets, as in "[::1]:1935". Empty if the text
// does not have this form.
struct RtmpAddress {
    std::string host;
    std::string port;
};
[[nodiscard]] std::optional<RtmpAddress> parse_rtmp_address(const std::string& text);

[[nodiscard]] ProbeResult probe_handshake(const RtmpAddress& address, std::uint64_t max_us);

// Publishes a stream of this name and plays it until a message arrives.
[[nodiscard]] ProbeResult probe_stream(const RtmpAddress& address, const std::string& stream,
                                       std::uint64_t max_us);
