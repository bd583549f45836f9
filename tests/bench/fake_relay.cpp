#include "tests/bench/fake_relay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

#include "bench/stamped_media.h"
#include "tests/support/amf_bytes.h"
#include "tests/support/chunk_bytes.h"
#include "tests/support/test_failure.h"

namespace {

constexpr std::size_t HANDSHAKE_BLOCK = 1536;
constexpr std::size_t FIRST_HEADER_BYTES = 12;
constexpr std::uint32_t FIRST_LARGE_LOSS = 10;
constexpr int POLL_MS = 20;

// Returns the name in a publish or play command.
std::string stream_name(std::string_view payload, std::string_view command) {
    const Bytes before = amf_string(command) + amf_number(0) + amf_null();
    const std::string_view name = payload.substr(before.size());
    return std::string(name.substr(3, get_be16(name, 1)));
}

bool send_all(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

// Returns the same frame with an earlier send time.
Bytes delayed(std::uint8_t type, const Bytes& payload, std::uint64_t delay_us) {
    FrameStamp stamp = read_stamp(type, payload).value();
    stamp.sent_us -= delay_us;
    const FrameKind kind = type == MSG_AUDIO      ? FrameKind::AUDIO
                           : payload[0] == '\x17' ? FrameKind::VIDEO_KEY
                                                  : FrameKind::VIDEO_INTER;
    return stamped_frame(kind, payload.size(), stamp);
}

}  // namespace

FakeRelay::FakeRelay(FaultPlan fault_plan)
    : plan(std::move(fault_plan)),
      listener(checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket")) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    checked(bind(listener, reinterpret_cast<sockaddr*>(&address), size), "bind");
    checked(listen(listener, 128), "listen");
    checked(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size), "getsockname");
    port = ntohs(address.sin_port);
    thread = std::thread([this] { run(); });
}

FakeRelay::~FakeRelay() {
    stop_requested = true;
    thread.join();
    for (const auto& client : clients) {
        close(client->fd);
    }
    close(listener);
}

std::string FakeRelay::address() const {
    return "127.0.0.1:" + std::to_string(port);
}

void FakeRelay::run() {
    while (!stop_requested) {
        std::vector<pollfd> entries = {{listener, POLLIN, 0}};
        for (const auto& client : clients) {
            entries.push_back({client->fd, POLLIN, 0});
        }
        if (poll(entries.data(), entries.size(), POLL_MS) <= 0) {
            continue;
        }
        for (std::size_t i = entries.size() - 1; i > 0; --i) {
            if (entries[i].revents != 0 && !read_from(*clients[i - 1])) {
                close(clients[i - 1]->fd);
                clients.erase(clients.begin() + static_cast<std::ptrdiff_t>(i - 1));
            }
        }
        if (entries[0].revents != 0) {
            accept_client();
        }
    }
}

void FakeRelay::accept_client() {
    clients.push_back(std::make_unique<Client>());
    clients.back()->fd = checked(accept(listener, nullptr, nullptr), "accept");
}

bool FakeRelay::read_from(Client& client) {
    std::array<char, 65536> buffer{};
    const ssize_t count = recv(client.fd, buffer.data(), buffer.size(), 0);
    if (count <= 0) {
        return false;
    }
    client.input.append(buffer.data(), static_cast<std::size_t>(count));
    while (client.is_handshaken ? take_message(client) : take_handshake(client)) {
    }
    return true;
}

bool FakeRelay::take_handshake(Client& client) const {
    if (!client.is_greeted) {
        if (client.input.size() < 1 + HANDSHAKE_BLOCK) {
            return false;
        }
        client.is_greeted = send_all(client.fd, bytes_of({3}) + pattern_bytes(HANDSHAKE_BLOCK, 5) +
                                                    client.input.substr(1, HANDSHAKE_BLOCK));
        client.input.erase(0, 1 + HANDSHAKE_BLOCK);
        return client.is_greeted;
    }
    if (client.input.size() < HANDSHAKE_BLOCK) {
        return false;
    }
    client.input.erase(0, HANDSHAKE_BLOCK);
    client.is_handshaken = true;
    return true;
}

// Messages of the load generators begin with a header of format 0 and continue without another message
// in between.
bool FakeRelay::take_message(Client& client) {
    const Bytes& input = client.input;
    if (input.size() < FIRST_HEADER_BYTES) {
        return false;
    }
    Message message{static_cast<std::uint8_t>(input[7]), get_be24(input, 1), {}};
    const std::size_t length = get_be24(input, 4);
    std::size_t position = FIRST_HEADER_BYTES;
    while (message.payload.size() < length) {
        position += message.payload.empty() ? 0 : 1;
        const std::size_t chunk = std::min<std::size_t>(client.input_chunk, length - message.payload.size());
        if (input.size() < position + chunk) {
            return false;
        }
        message.payload.append(input, position, chunk);
        position += chunk;
    }
    client.input.erase(0, position);
    handle(client, message);
    return true;
}

void FakeRelay::handle(Client& client, const Message& message) {
    switch (message.type) {
        case MSG_SET_CHUNK_SIZE:
            send_message(client, message);
            client.input_chunk = get_be32(message.payload);
            client.output_chunk = client.input_chunk;
            break;
        case MSG_COMMAND:
            answer_command(client, message);
            break;
        case MSG_AUDIO:
        case MSG_VIDEO:
            relay(client, message);
            break;
        default:
            break;
    }
}

void FakeRelay::answer_command(Client& client, const Message& message) {
    send_message(client, {MSG_COMMAND, 0, amf_string("_result")});
    if (message.payload.starts_with(amf_string("publish"))) {
        client.publishes = stream_name(message.payload, "publish");
    } else if (message.payload.starts_with(amf_string("play"))) {
        client.plays = stream_name(message.payload, "play");
        for (const auto& [type, header] : headers[client.plays]) {
            send_message(client, header);
        }
    }
}

void FakeRelay::relay(const Client& publisher, const Message& message) {
    const bool is_header = is_sequence_header(message.payload);
    if (is_header) {
        headers[publisher.publishes][message.type] = message;
    }
    for (const auto& client : clients) {
        if (client->plays == publisher.publishes) {
            if (is_header) {
                send_message(*client, message);
            } else {
                relay_frame(*client, message);
            }
        }
    }
}

void FakeRelay::relay_frame(Client& player, Message message) const {
    const auto fault = plan.faults.find(++player.frames);
    if (message.payload.size() > plan.most_frame_bytes && player.frames >= FIRST_LARGE_LOSS) {
        return;
    }
    if (fault != plan.faults.end()) {
        switch (fault->second) {
            case Fault::LOSE:
                return;
            case Fault::DOUBLE:
                send_message(player, message);
                break;
            case Fault::SWAP:
                player.held_back.push_back(std::move(message));
                return;
            case Fault::FLIP:
                message.payload.back() = static_cast<char>(message.payload.back() ^ 1);
                break;
            case Fault::DELAY:
                message.payload = delayed(message.type, message.payload, plan.delay_us);
                break;
        }
    }
    send_message(player, message);
    for (const Message& held : std::exchange(player.held_back, {})) {
        send_message(player, held);
    }
}

void FakeRelay::send_message(Client& client, const Message& message) {
    // A client that has left is noticed when it is read from.
    (void)send_all(
        client.fd,
        chunked({.type = message.type, .payload = message.payload, .csid = 4, .timestamp = message.timestamp},
                client.output_chunk));
}
