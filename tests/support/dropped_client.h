// Clients that the server drops without an answer because of what they sent, and what it prints about them.
// They neither publish nor play.
#pragma once

#include <string>
#include <vector>

#include "tests/support/rtmp_client.h"
#include "tests/support/server_process.h"

// Sends a command behind the handshake. The lines from its arrival to the end of the connection.
std::vector<std::string> lines_of_failure(const ServerProcess& server, const Bytes& payload);
// The same at a server of its own.
std::vector<std::string> lines_of_failure(const Bytes& payload);

// What the client has sent ends the server's reading: from the mark on, there are these lines and those of
// every such end.
void expect_end_of_reading(const ServerProcess& server, RtmpClient& client, LineMark from,
                           std::vector<std::string> lines);
