#include "tools/v9_rtmp_ctl/serve/http_loop.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/v9_rtmp_ctl/io_errors.h"

namespace {

constexpr std::string_view HEAD_END = "\r\n\r\n";
// Further clients wait in the kernel until the next turn.
constexpr int MAX_ACCEPTS_PER_TURN = 64;

}  // namespace

HttpLoop::HttpLoop(int listening_socket, Answer answer_function)
    : listener(listening_socket), answer(std::move(answer_function)) {}

HttpLoop::~HttpLoop() {
    for (const Client& client : clients) {
        close(client.fd);
    }
}

void HttpLoop::turn(std::chrono::milliseconds wait) {
    std::vector<pollfd> waited;
    waited.reserve(clients.size() + 1);
    waited.push_back({may_accept ? listener : -1, POLLIN, 0});
    may_accept = true;
    for (const Client& client : clients) {
        const bool sends = client.state == State::REPLY;
        waited.push_back({client.fd, static_cast<short>(sends ? POLLOUT : POLLIN), 0});
    }
    if (poll(waited.data(), waited.size(), static_cast<int>(wait.count())) > 0) {
        std::size_t idx = 1;
        for (Place place = clients.begin(); place != clients.end(); ++idx) {
            const bool keeps = waited[idx].revents == 0 || advance(*place);
            place = keeps ? std::next(place) : end(place);
        }
        if (waited.front().revents != 0) {
            accept_all();
        }
    }
    close_late();
}

void HttpLoop::accept_all() {
    for (int i = 0; i < MAX_ACCEPTS_PER_TURN; ++i) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            // Without free descriptors the listener stays readable, and the loop would spin.
            may_accept = can_try_again(errno) || errno == ECONNABORTED;
            return;
        }
        make_room();
        clients.push_back({fd, State::HEAD, {}, {}, 0, Clock::now() + HEAD_LIMIT});
        // Most clients have already sent their request.
        if (!advance(clients.back())) {
            end(std::prev(clients.end()));
        }
    }
}

void HttpLoop::make_room() {
    if (clients.size() < MAX_HTTP_CLIENTS) {
        return;
    }
    const Place incomplete = std::find_if(clients.begin(), clients.end(),
                                          [](const Client& client) { return client.state == State::HEAD; });
    end(incomplete != clients.end() ? incomplete : clients.begin());
}

bool HttpLoop::advance(Client& client) {
    switch (client.state) {
        case State::HEAD:
            return read_head(client);
        case State::REPLY:
            return send_reply(client);
        case State::LINGER:
            return read_rest(client);
    }
    return false;
}

bool HttpLoop::read_head(Client& client) {
    std::array<char, 4096> bytes{};
    const ssize_t length = recv(client.fd, bytes.data(), bytes.size(), 0);
    if (length <= 0) {
        return length < 0 && can_try_again(errno);
    }
    // An empty line may be split between two reads.
    const std::size_t searched = client.head.size() - std::min(client.head.size(), HEAD_END.size() - 1);
    client.head.append(bytes.data(), static_cast<std::size_t>(length));
    const std::size_t end_of_head = client.head.find(HEAD_END, searched);
    if (end_of_head == std::string::npos) {
        return client.head.size() < MAX_HEAD_BYTES;
    }
    client.head.resize(end_of_head + HEAD_END.size());
    client.reply = answer(std::exchange(client.head, {}));
    client.state = State::REPLY;
    client.deadline = Clock::now() + REPLY_LIMIT;
    return send_reply(client);
}

bool HttpLoop::send_reply(Client& client) {
    while (client.sent_bytes < client.reply.size()) {
        const ssize_t length = send(client.fd, client.reply.data() + client.sent_bytes,
                                    client.reply.size() - client.sent_bytes, MSG_NOSIGNAL);
        if (length < 0) {
            return can_try_again(errno);
        }
        client.sent_bytes += static_cast<std::size_t>(length);
    }
    client.reply = {};
    client.sent_bytes = 0;
    client.state = State::LINGER;
    client.deadline = Clock::now() + LINGER_LIMIT;
    return shutdown(client.fd, SHUT_WR) == 0;
}

bool HttpLoop::read_rest(const Client& client) {
    std::array<char, 4096> bytes{};
    const ssize_t length = recv(client.fd, bytes.data(), bytes.size(), 0);
    return length > 0 || (length < 0 && can_try_again(errno));
}

void HttpLoop::close_late() {
    const Clock::time_point now = Clock::now();
    for (Place place = clients.begin(); place != clients.end();) {
        place = now < place->deadline ? std::next(place) : end(place);
    }
}

HttpLoop::Place HttpLoop::end(Place place) {
    close(place->fd);
    return clients.erase(place);
}
