// Clients that the server drops without a reply because of what they sent, and its messages about them. They
// neither publish nor play.
#pragma once

#include <string>
#include <vector>

#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

// Sends a command after the handshake. Returns the lines from its arrival to the end of the connection.
std::vector<std::string> lines_of_failure(const ServerProcess& server, const Bytes& payload);
// The same with its own server.
std::vector<std::string> lines_of_failure(const Bytes& payload);

// Requires that the client's data made the server stop reading: from the mark on, it printed these lines and
// those common to every such end.
void expect_end_of_reading(const ServerProcess& server, RtmpClient& client, LineMark from,
                           std::vector<std::string> lines);
