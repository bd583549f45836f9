#include "tests/storm/accept_queue.h"

#include <cstdio>
#include <fstream>
#include <mutex>
#include <string>

#include "tests/support/test_failure.h"

namespace {

// Below the server's backlog of 20.
constexpr std::size_t MOST_WAITING = 15;

// Returns the number of connections that the listening socket on port 1935 has not yet accepted.
std::size_t accept_queue_length() {
    std::ifstream file("/proc/self/net/tcp");
    for (std::string line; std::getline(file, line);) {
        std::size_t length = 0;
        if (std::sscanf(line.c_str(), "%*d: %*x:078F %*x:%*x 0A %*x:%zx", &length) == 1) {
            return length;
        }
    }
    throw TestFailure("no program listens on port 1935");
}

}  // namespace

RtmpClient connect_through_queue(const ClientOptions& options) {
    static std::mutex turn;
    const std::lock_guard guard(turn);
    wait_for_accept_queue(MOST_WAITING);
    return RtmpClient(options);
}

void wait_for_accept_queue(std::size_t most_waiting) {
    if (!holds_within(DEFAULT_WAIT, [&] { return accept_queue_length() <= most_waiting; })) {
        throw TestFailure("the server accepts no client");
    }
}
