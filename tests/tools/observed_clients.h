// Clients as listings show them second by second, for tests of what is derived from a history.
#pragma once

#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/connection_history.h"

inline Connection observed_client(unsigned id, const std::string& mode, const std::string& stream,
                                  std::uint64_t sent, std::uint64_t received) {
    Connection connection;
    connection.id = id;
    connection.stream = stream;
    connection.mode = mode;
    connection.bytes_sent = sent;
    connection.bytes_received = received;
    connection.address = "10.0.0." + std::to_string(id) + ":1";
    return connection;
}
inline Connection observed_player(unsigned id, const std::string& stream, std::uint64_t sent) {
    return observed_client(id, "play", stream, sent, 3000);
}
inline Connection observed_publisher(unsigned id, const std::string& stream, std::uint64_t received) {
    return observed_client(id, "publish", stream, 3000, received);
}

constexpr std::uint64_t ONE_SECOND_US = 1000000;
