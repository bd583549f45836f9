#include "tests/support/control_peer.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>

#include "tests/support/test_failure.h"

namespace {

constexpr std::size_t HEADER_BYTES = 8;
constexpr std::uint32_t ABSENT = 0xFFFFFFFF;

Bytes be64(std::uint64_t value) {
    return be32(static_cast<std::uint32_t>(value >> 32)) + be32(static_cast<std::uint32_t>(value));
}

Bytes counted(std::string_view text) {
    return be32(static_cast<std::uint32_t>(text.size())) + Bytes(text);
}

// Parses a body from start to end.
class BodyReader {
  public:
    explicit BodyReader(std::string_view bytes) : rest(bytes) {}

    std::uint32_t number() { return get_be32(take(4)); }

    std::uint64_t long_number() {
        const std::uint64_t high = number();
        return high << 32 | number();
    }

    std::string text() { return std::string(take(number())); }

    void expect_end() const {
        if (!rest.empty()) {
            throw TestFailure("a control reply has " + std::to_string(rest.size()) + " bytes after its end");
        }
    }

  private:
    std::string_view take(std::size_t count) {
        if (rest.size() < count) {
            throw TestFailure("a field of a control reply reaches beyond the frame");
        }
        const std::string_view taken = rest.substr(0, count);
        rest.remove_prefix(count);
        return taken;
    }

    std::string_view rest;
};

ControlReply parse_reply(std::string_view body) {
    BodyReader reader(body);
    ControlReply reply;
    reply.flags = reader.number();
    reply.request_id = reader.long_number();
    reply.status = reader.long_number();
    reply.command = reader.text();
    reply.message = reader.text();
    if (reader.number() != 0) {
        throw TestFailure("a control reply has arguments");
    }
    const std::uint32_t pairs = reader.number();
    for (std::uint32_t i = 0; i < pairs; ++i) {
        std::string name = reader.text();
        std::string value = reader.text();
        reply.pairs.emplace_back(std::move(name), std::move(value));
    }
    reader.expect_end();
    return reply;
}

}  // namespace

Bytes control_request(std::uint64_t id, std::string_view command, const ControlArguments& arguments,
                      std::uint32_t flags) {
    Bytes body = be32(flags) + be64(id) + be64(0) + counted(command) + counted("");
    body += be32(static_cast<std::uint32_t>(arguments.size()));
    for (const std::optional<std::string>& argument : arguments) {
        body += argument ? counted(*argument) : be32(ABSENT);
    }
    return control_frame(body + be32(0));
}

Bytes control_frame(std::string_view body, std::uint8_t version) {
    return bytes_of({'C', 'S', version, 0}) + counted(body);
}

Bytes control_reply(const ControlReply& reply) {
    Bytes body = be32(0) + be64(1) + be64(reply.status) + counted(reply.command) + counted(reply.message) +
                 be32(0) + be32(static_cast<std::uint32_t>(reply.pairs.size()));
    for (const auto& [name, value] : reply.pairs) {
        body += counted(name) + counted(value);
    }
    return control_frame(body);
}

std::vector<std::string> ControlReply::values(std::string_view name) const {
    std::vector<std::string> found;
    for (const auto& [pair_name, value] : pairs) {
        if (pair_name == name) {
            found.push_back(value);
        }
    }
    return found;
}

ControlPeer::ControlPeer(const std::string& path, int send_buffer_bytes)
    : ClientSocket(checked(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket")) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (send_buffer_bytes > 0) {
        (void)setsockopt(descriptor(), SOL_SOCKET, SO_SNDBUF, &send_buffer_bytes, sizeof send_buffer_bytes);
    }
    checked(connect(descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address), path.c_str());
}

std::size_t ControlPeer::send_some(std::string_view bytes) const {
    const ssize_t sent = send(descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    checked(sent < 0 && errno != EAGAIN ? -1 : 0, "send");
    return sent > 0 ? static_cast<std::size_t>(sent) : 0;
}

std::size_t ControlPeer::read_header(TimePoint deadline) {
    const Bytes header = take_bytes(HEADER_BYTES, deadline);
    if (!header.starts_with(bytes_of({'C', 'S', 4, 0}))) {
        throw TestFailure("a control reply begins with " + to_hex(header));
    }
    return get_be32(header, 4);
}

ControlReply ControlPeer::read_reply(Milliseconds wait) {
    const TimePoint deadline = SteadyClock::now() + wait;
    return parse_reply(take_bytes(read_header(deadline), deadline));
}

ControlReply ControlPeer::ask(std::string_view command, const ControlArguments& arguments,
                              Milliseconds wait) {
    send_bytes(control_request(++last_id, command, arguments));
    ControlReply reply = read_reply(wait);
    if (reply.request_id != last_id) {
        throw TestFailure("request " + std::to_string(last_id) + " was answered with the id " +
                          std::to_string(reply.request_id));
    }
    return reply;
}

bool ControlPeer::has_unread_bytes() const {
    char byte = 0;
    return recv(descriptor(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 1;
}

void ControlPeer::expect_closed(Milliseconds wait) {
    const TimePoint deadline = SteadyClock::now() + wait;
    if (!buffer.empty() || fill_buffer(deadline) != Fill::CLOSED) {
        throw TestFailure("bytes came from the control socket: " + to_hex(buffer.substr(0, 64)));
    }
}
