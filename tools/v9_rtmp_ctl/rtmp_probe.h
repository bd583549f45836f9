// A small RTMP client that finds out whether the server relays: a handshake, or a short stream from a
// publisher to a player of its own. It speaks as much of RTMP as that needs.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

struct ProbeResult {
    std::optional<std::string> problem;  // nothing when all went well
    std::uint64_t took_us = 0;
};

// Host and port of "HOST:PORT"; nothing when it is not of this form.
struct RtmpAddress {
    std::string host;
    std::string port;
};
[[nodiscard]] std::optional<RtmpAddress> parse_rtmp_address(const std::string& text);

[[nodiscard]] ProbeResult probe_handshake(const RtmpAddress& address, std::uint64_t max_us);

// Publishes a stream of this name and plays it until a message has come through.
[[nodiscard]] ProbeResult probe_stream(const RtmpAddress& address, const std::string& stream,
                                       std::uint64_t max_us);
