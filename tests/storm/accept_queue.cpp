#include "tests/storm/accept_queue.h"

#include "tests/support/test_failure.h"

#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

namespace {

// Below the server's backlog of 20.
constexpr std::size_t MOST_WAITING = 15;
constexpr Milliseconds POLL{2};
const std::string PORT_1935 = ":078F";
const std::string LISTENING = "0A";
const std::string ESTABLISHED = "01";

struct SocketLine {
    std::string local;
    std::string state;
    std::size_t waiting = 0;  // of a listening socket: connections that nobody has accepted
};

bool read_line(std::istream& file, SocketLine& socket_line) {
    std::string line;
    if (!std::getline(file, line)) {
        return false;
    }
    std::istringstream fields(line);
    std::string slot, remote, queues;
    fields >> slot >> socket_line.local >> remote >> socket_line.state >> queues;
    if (slot != "sl") {
        socket_line.waiting = std::stoul(queues.substr(queues.find(':') + 1), nullptr, 16);
    }
    return true;
}

std::size_t accept_queue_length() {
    std::ifstream file("/proc/self/net/tcp");
    SocketLine line;
    // Listening sockets stand first.
    while (read_line(file, line)) {
        if (line.state == LISTENING && line.local.ends_with(PORT_1935)) {
            return line.waiting;
        }
        if (line.state == ESTABLISHED) {
            break;
        }
    }
    throw TestFailure("nobody listens on port 1935");
}

void wait_until_queue_is_at_most(std::size_t length, Milliseconds wait) {
    const TimePoint deadline = SteadyClock::now() + wait;
    while (accept_queue_length() > length) {
        if (SteadyClock::now() >= deadline) {
            throw TestFailure("the server accepts nobody");
        }
        std::this_thread::sleep_for(POLL);
    }
}

}  // namespace

RtmpClient connect_through_queue(const ClientOptions& options) {
    static std::mutex turn;
    const std::lock_guard guard(turn);
    wait_until_queue_is_at_most(MOST_WAITING, DEFAULT_WAIT);
    return RtmpClient(options);
}

void wait_for_empty_accept_queue(Milliseconds wait) {
    wait_until_queue_is_at_most(0, wait);
}

std::size_t connections_left_to_the_kernel() {
    std::ifstream file("/proc/self/net/tcp");
    std::size_t count = 0;
    SocketLine line;
    while (read_line(file, line)) {
        count +=
            line.local.ends_with(PORT_1935) && line.state != LISTENING && line.state != ESTABLISHED ? 1 : 0;
    }
    return count;
}
