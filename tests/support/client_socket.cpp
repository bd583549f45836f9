#include "tests/support/client_socket.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

#include "tests/support/test_failure.h"

ClientSocket::ClientSocket(ClientSocket&& other) noexcept
    : buffer(std::move(other.buffer)),
      buffer_filled(other.buffer_filled),
      close_kind(other.close_kind),
      fd(std::exchange(other.fd, -1)),
      sent_bytes(other.sent_bytes),
      peer_closed(other.peer_closed) {}

void ClientSocket::send_bytes(std::string_view bytes, Milliseconds wait) {
    if (!try_send_bytes(bytes, wait)) {
        throw TestFailure("the server closed the connection while it was being sent to");
    }
}

bool ClientSocket::try_send_bytes(std::string_view bytes, Milliseconds wait) {
    const TimePoint deadline = SteadyClock::now() + wait;
    while (!bytes.empty()) {
        const ssize_t count = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count >= 0) {
            sent_bytes += static_cast<std::uint64_t>(count);
            bytes.remove_prefix(static_cast<std::size_t>(count));
            continue;
        }
        if (errno == EPIPE || errno == ECONNRESET) {
            return false;
        }
        checked(errno == EAGAIN || errno == EINTR ? 0 : -1, "send");
        pollfd entry{fd, POLLOUT, 0};
        if (poll(&entry, 1, poll_timeout_ms(deadline)) == 0) {
            throw TestFailure("the server does not read: " + std::to_string(bytes.size()) +
                              " bytes left to send");
        }
    }
    return true;
}

ClientSocket::Fill ClientSocket::fill_buffer(TimePoint deadline) {
    std::array<char, 65536> chunk{};
    while (!peer_closed) {
        const ssize_t count = recv(fd, chunk.data(), chunk.size(), MSG_DONTWAIT);
        if (count > 0) {
            buffer.append(chunk.data(), static_cast<std::size_t>(count));
            buffer_filled = SteadyClock::now();
            return Fill::SOME;
        }
        if (count == 0 || errno == ECONNRESET || errno == EPIPE) {
            peer_closed = true;
            close_kind = count == 0 ? CloseKind::END_OF_STREAM : CloseKind::RESET;
            break;
        }
        checked(errno == EAGAIN || errno == EINTR ? 0 : -1, "recv");
        pollfd entry{fd, POLLIN, 0};
        if (poll(&entry, 1, poll_timeout_ms(deadline)) == 0) {
            return Fill::TIMED_OUT;
        }
    }
    return Fill::CLOSED;
}

Bytes ClientSocket::take_bytes(std::size_t count, TimePoint deadline) {
    while (buffer.size() < count) {
        const Fill filled = fill_buffer(deadline);
        if (filled != Fill::SOME) {
            throw TestFailure("wanted " + std::to_string(count) + " bytes, got " +
                              std::to_string(buffer.size()) +
                              (filled == Fill::CLOSED ? ": the server closed the connection" : " in time"));
        }
    }
    Bytes taken = buffer.substr(0, count);
    buffer.erase(0, count);
    return taken;
}

void ClientSocket::half_close() const {
    checked(shutdown(fd, SHUT_WR), "shutdown");
}

void ClientSocket::close() {
    if (fd >= 0) {
        ::close(fd);
    }
    fd = -1;
}
