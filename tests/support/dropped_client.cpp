#include "tests/support/dropped_client.h"

#include <gtest/gtest.h>

namespace {

const std::string LAST_LINE = "Disposing old stream ''";

}  // namespace

std::vector<std::string> lines_of_failure(const ServerProcess& server, const Bytes& payload) {
    RtmpClient client = handshaken_client();
    (void)client.round_trip();
    const LineMark mark = server.mark();
    client.send_command(payload);
    (void)client.expect_closed_without_answer();
    return server.lines_through(LAST_LINE, mark);
}

std::vector<std::string> lines_of_failure(const Bytes& payload) {
    const ServerProcess server;
    return lines_of_failure(server, payload);
}

void expect_end_of_reading(const ServerProcess& server, RtmpClient& client, LineMark from,
                           std::vector<std::string> lines) {
    (void)client.expect_closed_without_answer();
    lines.insert(lines.end(), {"Thread 1 died", "WARNING: Thread terminated unexpectedly",
                               "Dropping connection", LAST_LINE});
    EXPECT_EQ(server.lines_through(LAST_LINE, from), lines);
}
