#include "tests/storm/accept_queue.h"

#include <fstream>
#include <mutex>
#include <sstream>
#include <string>

#include "tests/support/test_failure.h"

namespace {

// Below the server's backlog of 20.
constexpr std::size_t MOST_WAITING = 15;
const std::string PORT_1935 = ":078F";
const std::string LISTENING = "0A";
const std::string ESTABLISHED = "01";

struct SocketLine {
    std::string local;
    std::string state;
    std::size_t waiting = 0;  // of a listening socket: connections not yet accepted
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
    // Listening sockets come first.
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

bool queue_gets_down_to(std::size_t length, Milliseconds wait) {
    return holds_within(wait, [length] { return accept_queue_length() <= length; });
}

}  // namespace

RtmpClient connect_through_queue(const ClientOptions& options) {
    static std::mutex turn;
    // After one thread has waited in vain, the others need not wait.
    static bool given_up = false;
    const std::lock_guard guard(turn);
    given_up = !queue_gets_down_to(MOST_WAITING, given_up ? Milliseconds{0} : DEFAULT_WAIT);
    if (given_up) {
        throw TestFailure("the server accepts nobody");
    }
    return RtmpClient(options);
}

void wait_for_empty_accept_queue(Milliseconds wait) {
    if (!queue_gets_down_to(0, wait)) {
        throw TestFailure("the server does not accept everybody");
    }
}
