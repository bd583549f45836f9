// The client's end: connects, sends requests and waits for replies, each with a deadline.
#include <comm_socket_v4.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <span>
#include <string>
#include <utility>

#include "comm_socket/clock.h"
#include "comm_socket/errors.h"
#include "comm_socket/frame_buffer.h"
#include "comm_socket/packet.h"
#include "comm_socket/wire.h"

struct comm_socket_v4_connection {
    explicit comm_socket_v4_connection(int connected_fd) : fd(connected_fd) {}

    int fd;
    comm_socket::FrameBuffer input{comm_socket::REPLY_LIMITS};
    std::uint64_t last_request_id = 0;
    comm_socket_v4_error failure = COMM_SOCKET_V4_OK;  // OK while the connection can be used
};

namespace {

constexpr std::size_t READ_CHUNK_BYTES = 65536;
constexpr int FULL_BACKLOG_RETRY_MS = 10;

// The two time limits of a call: for the whole call, and for the time without progress.
class Patience {
  public:
    Patience(std::uint64_t silence, std::uint64_t total)
        : silence_us(silence),
          total_deadline_us(comm_socket::deadline_after(total)),
          silence_deadline_us(comm_socket::deadline_after(silence)) {}
    explicit Patience(std::uint64_t total) : Patience(UINT64_MAX, total) {}

    void restart_silence() { silence_deadline_us = comm_socket::deadline_after(silence_us); }
    [[nodiscard]] std::uint64_t deadline_us() const {
        return std::min(total_deadline_us, silence_deadline_us);
    }
    [[nodiscard]] bool is_over() const { return comm_socket::now_us() >= deadline_us(); }
    [[nodiscard]] bool total_is_over() const { return comm_socket::now_us() >= total_deadline_us; }

  private:
    std::uint64_t silence_us;
    std::uint64_t total_deadline_us;
    std::uint64_t silence_deadline_us;
};

// Returns OK if the socket may be ready, TIMEOUT at the deadline, or SYSTEM if poll fails.
comm_socket_v4_error wait_for(int fd, short events, std::uint64_t deadline_us) {
    for (;;) {
        const int left_ms = comm_socket::poll_time_left_ms(deadline_us);
        pollfd entry = {fd, events, 0};
        const int ready = poll(&entry, 1, left_ms);
        if (ready > 0) {
            return COMM_SOCKET_V4_OK;
        }
        if (ready == 0 && comm_socket::now_us() >= deadline_us) {
            return COMM_SOCKET_V4_TIMEOUT;
        }
        if (ready < 0 && errno != EINTR) {
            return COMM_SOCKET_V4_SYSTEM;
        }
    }
}

comm_socket_v4_error connect_error(int error) {
    switch (error) {
        case ENOENT:
        case ENOTDIR:
        case ELOOP:  // symbolic links that form a loop
            return COMM_SOCKET_V4_NO_SOCKET;
        case ECONNREFUSED:
        case EPROTOTYPE:  // a socket of another kind, so not this server's
            return COMM_SOCKET_V4_REFUSED;
        case EACCES:
        case EPERM:
            return COMM_SOCKET_V4_PERMISSION;
        default:
            return COMM_SOCKET_V4_SYSTEM;
    }
}

comm_socket_v4_error connect_until(int fd, const sockaddr_un& address, std::uint64_t deadline_us) {
    for (;;) {
        if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
            return COMM_SOCKET_V4_OK;
        }
        if (errno == EINTR) {
            continue;
        }
        if (!comm_socket::would_block(errno)) {
            return connect_error(errno);
        }
        // The server's backlog is full. No event reports room in it, so try again a little later.
        if (comm_socket::now_us() >= deadline_us) {
            return COMM_SOCKET_V4_TIMEOUT;
        }
        poll(nullptr, 0, FULL_BACKLOG_RETRY_MS);
    }
}

comm_socket_v4_error fail(comm_socket_v4_connection* connection, comm_socket_v4_error error) {
    connection->failure = error;
    return error;
}

comm_socket_v4_error send_all(comm_socket_v4_connection* connection, const std::string& frames,
                              Patience* patience) {
    std::size_t sent = 0;
    while (sent < frames.size()) {
        const ssize_t n =
            send(connection->fd, frames.data() + sent, frames.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n >= 0) {
            sent += static_cast<std::size_t>(n);
            patience->restart_silence();
        } else if (comm_socket::would_block(errno)) {
            const comm_socket_v4_error error = wait_for(connection->fd, POLLOUT, patience->deadline_us());
            if (error != COMM_SOCKET_V4_OK) {
                connection->failure = COMM_SOCKET_V4_CLOSED;  // a partial frame may have been sent
                return error;
            }
        } else if (errno == EPIPE || errno == ECONNRESET) {
            return fail(connection, COMM_SOCKET_V4_CLOSED);
        } else if (errno != EINTR) {
            connection->failure = COMM_SOCKET_V4_CLOSED;
            return COMM_SOCKET_V4_SYSTEM;
        }
    }
    return COMM_SOCKET_V4_OK;
}

// Receives bytes, or waits for them.
comm_socket_v4_error receive_some(comm_socket_v4_connection* connection, std::uint64_t deadline_us) {
    unsigned char chunk[READ_CHUNK_BYTES];
    const ssize_t n = recv(connection->fd, chunk, sizeof chunk, MSG_DONTWAIT);
    if (n > 0) {
        connection->input.append(chunk, static_cast<std::size_t>(n));
        return COMM_SOCKET_V4_OK;
    }
    if (n == 0) {
        const bool is_between_frames = connection->input.size() == 0;
        return fail(connection, is_between_frames ? COMM_SOCKET_V4_CLOSED : COMM_SOCKET_V4_BROKEN_FRAME);
    }
    if (comm_socket::would_block(errno)) {
        return wait_for(connection->fd, POLLIN, deadline_us);
    }
    if (errno == EINTR) {
        return COMM_SOCKET_V4_OK;
    }
    if (errno == ECONNRESET) {
        return fail(connection, COMM_SOCKET_V4_CLOSED);
    }
    return COMM_SOCKET_V4_SYSTEM;
}

// Takes frames from the buffer until it finds the reply. *reply stays null if more bytes are needed.
comm_socket_v4_error find_reply(comm_socket_v4_connection* connection, std::uint64_t request_id,
                                comm_socket_v4_packet** reply) {
    for (;;) {
        switch (connection->input.state()) {
            case comm_socket::FrameState::INCOMPLETE:
                return COMM_SOCKET_V4_OK;
            case comm_socket::FrameState::BROKEN:
                return fail(connection, COMM_SOCKET_V4_BROKEN_FRAME);
            case comm_socket::FrameState::COMPLETE:
                break;
        }
        comm_socket::FrameHead head;
        comm_socket::FrameText text;
        if (!connection->input.take(&head, &text)) {
            return fail(connection, COMM_SOCKET_V4_BROKEN_FRAME);
        }
        if ((head.flags & COMM_SOCKET_V4_REQUEST) != 0 || head.request_id != request_id) {
            continue;
        }
        *reply = comm_socket::make_packet(head, std::move(text));
        return COMM_SOCKET_V4_OK;
    }
}

// Returns how many bytes of the reply to request_id have been received; 0 until its id has arrived.
std::size_t awaited_bytes(const comm_socket_v4_connection* connection, std::uint64_t request_id) {
    comm_socket::FrameHead head;
    if (!connection->input.peek(&head) || (head.flags & COMM_SOCKET_V4_REQUEST) != 0 ||
        head.request_id != request_id) {
        return 0;
    }
    return connection->input.size();
}

comm_socket_v4_error wait_reply(comm_socket_v4_connection* connection, std::uint64_t request_id,
                                Patience* patience, comm_socket_v4_packet** reply) {
    if (connection->failure != COMM_SOCKET_V4_OK) {
        return COMM_SOCKET_V4_CLOSED;
    }
    try {
        bool was_last_look = false;
        std::size_t received = awaited_bytes(connection, request_id);
        for (;;) {
            comm_socket_v4_error error = find_reply(connection, request_id, reply);
            if (error != COMM_SOCKET_V4_OK || *reply != nullptr) {
                return error;
            }
            const std::size_t received_before =
                std::exchange(received, awaited_bytes(connection, request_id));
            const bool has_grown = received > received_before;
            // A server that never stops sending cannot postpone the total deadline, but the bytes that have
            // arrived before it may complete the reply.
            if (was_last_look && (!has_grown || patience->total_is_over())) {
                return COMM_SOCKET_V4_TIMEOUT;
            }
            if (has_grown) {
                patience->restart_silence();
            }
            was_last_look = patience->is_over();
            error = receive_some(connection, patience->deadline_us());
            if (error != COMM_SOCKET_V4_OK) {
                return error;
            }
        }
    } catch (const std::exception&) {
        return COMM_SOCKET_V4_NO_MEMORY;
    }
}

bool is_sendable(const comm_socket_v4_packet* request) {
    return request != nullptr && request->content->state == comm_socket::PacketState::COMPLETE &&
           (request->flags & COMM_SOCKET_V4_REQUEST) != 0 &&
           (request->flags & ~(COMM_SOCKET_V4_REQUEST | COMM_SOCKET_V4_ASYNC)) == 0;
}

comm_socket_v4_error send_requests(comm_socket_v4_connection* connection,
                                   std::span<comm_socket_v4_packet* const> requests, Patience* patience) {
    if (!std::all_of(requests.begin(), requests.end(), is_sendable)) {
        return COMM_SOCKET_V4_BAD_ARGUMENT;
    }
    if (connection->failure != COMM_SOCKET_V4_OK) {
        return COMM_SOCKET_V4_CLOSED;
    }
    try {
        std::string frames;
        std::uint64_t id = connection->last_request_id;
        for (const comm_socket_v4_packet* request : requests) {
            comm_socket::FrameHead head = comm_socket::head_of(request);
            head.request_id = ++id;
            if (!comm_socket::within_limits(head, *request->content->text, comm_socket::REQUEST_LIMITS)) {
                return COMM_SOCKET_V4_TOO_LARGE;
            }
            frames += comm_socket::encode_frame(head, *request->content->text);
        }
        for (comm_socket_v4_packet* request : requests) {
            request->request_id = ++connection->last_request_id;
        }
        return send_all(connection, frames, patience);
    } catch (const std::exception&) {
        return COMM_SOCKET_V4_NO_MEMORY;
    }
}

comm_socket_v4_error wait_reply_patiently(comm_socket_v4_connection* connection, std::uint64_t request_id,
                                          Patience patience, comm_socket_v4_packet** reply) {
    if (reply == nullptr) {
        return COMM_SOCKET_V4_BAD_ARGUMENT;
    }
    *reply = nullptr;
    if (connection == nullptr) {
        return COMM_SOCKET_V4_BAD_ARGUMENT;
    }
    return wait_reply(connection, request_id, &patience, reply);
}

comm_socket_v4_error call(comm_socket_v4_connection* connection, comm_socket_v4_packet* request,
                          Patience patience, comm_socket_v4_packet** reply) {
    if (reply == nullptr) {
        return COMM_SOCKET_V4_BAD_ARGUMENT;
    }
    *reply = nullptr;
    if (connection == nullptr) {
        return COMM_SOCKET_V4_BAD_ARGUMENT;
    }
    const comm_socket_v4_error error = send_requests(connection, {&request, 1}, &patience);
    if (error != COMM_SOCKET_V4_OK || (request->flags & COMM_SOCKET_V4_ASYNC) != 0) {
        return error;
    }
    return wait_reply(connection, request->request_id, &patience, reply);
}

}  // namespace

const char* comm_socket_v4_error_text(comm_socket_v4_error error) {
    switch (error) {
        case COMM_SOCKET_V4_OK:
            return "no error";
        case COMM_SOCKET_V4_NO_SOCKET:
            return "no such socket";
        case COMM_SOCKET_V4_REFUSED:
            return "connection refused";
        case COMM_SOCKET_V4_PERMISSION:
            return "permission denied";
        case COMM_SOCKET_V4_TIMEOUT:
            return "timed out";
        case COMM_SOCKET_V4_BROKEN_FRAME:
            return "broken frame";
        case COMM_SOCKET_V4_CLOSED:
            return "connection closed";
        case COMM_SOCKET_V4_TOO_LARGE:
            return "request too large";
        case COMM_SOCKET_V4_NO_MEMORY:
            return "out of memory";
        case COMM_SOCKET_V4_BAD_ARGUMENT:
            return "bad argument";
        case COMM_SOCKET_V4_SYSTEM:
            return "system error";
    }
    return "unknown error";
}

comm_socket_v4_connection* comm_socket_v4_connect(const char* path, uint64_t timeout_us,
                                                  comm_socket_v4_error* error) {
    comm_socket_v4_error ignored = COMM_SOCKET_V4_OK;
    comm_socket_v4_error& result = error != nullptr ? *error : ignored;
    const std::uint64_t deadline_us = comm_socket::deadline_after(timeout_us);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    result = COMM_SOCKET_V4_BAD_ARGUMENT;
    if (path == nullptr || *path == '\0' || std::strlen(path) >= sizeof address.sun_path) {
        return nullptr;
    }
    std::memcpy(address.sun_path, path, std::strlen(path));

    result = COMM_SOCKET_V4_SYSTEM;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return nullptr;
    }
    result = connect_until(fd, address, deadline_us);
    if (result == COMM_SOCKET_V4_OK) {
        try {
            return new comm_socket_v4_connection(fd);
        } catch (const std::exception&) {
            result = COMM_SOCKET_V4_NO_MEMORY;
        }
    }
    const int reason = errno;
    close(fd);
    errno = reason;
    return nullptr;
}

comm_socket_v4_connection* comm_socket_v4_disconnect(comm_socket_v4_connection* connection) {
    if (connection != nullptr) {
        close(connection->fd);
        delete connection;
    }
    return nullptr;
}

int comm_socket_v4_connection_get_fd(const comm_socket_v4_connection* connection) {
    return connection == nullptr ? -1 : connection->fd;
}

comm_socket_v4_error comm_socket_v4_send_request(comm_socket_v4_connection* connection,
                                                 comm_socket_v4_packet* request, uint64_t timeout_us) {
    return comm_socket_v4_send_requests(connection, &request, 1, timeout_us);
}

comm_socket_v4_error comm_socket_v4_send_requests(comm_socket_v4_connection* connection,
                                                  comm_socket_v4_packet* const* requests, size_t count,
                                                  uint64_t timeout_us) {
    if (connection == nullptr || (requests == nullptr && count > 0)) {
        return COMM_SOCKET_V4_BAD_ARGUMENT;
    }
    Patience patience(timeout_us);
    return send_requests(connection, {requests, count}, &patience);
}

comm_socket_v4_error comm_socket_v4_wait_reply(comm_socket_v4_connection* connection, uint64_t request_id,
                                               uint64_t timeout_us, comm_socket_v4_packet** reply) {
    return wait_reply_patiently(connection, request_id, Patience(timeout_us), reply);
}

comm_socket_v4_error comm_socket_v4_wait_reply_within(comm_socket_v4_connection* connection,
                                                      uint64_t request_id, uint64_t silence_us,
                                                      uint64_t total_us, comm_socket_v4_packet** reply) {
    return wait_reply_patiently(connection, request_id, Patience(silence_us, total_us), reply);
}

comm_socket_v4_error comm_socket_v4_call(comm_socket_v4_connection* connection,
                                         comm_socket_v4_packet* request, uint64_t timeout_us,
                                         comm_socket_v4_packet** reply) {
    return call(connection, request, Patience(timeout_us), reply);
}

comm_socket_v4_error comm_socket_v4_call_within(comm_socket_v4_connection* connection,
                                                comm_socket_v4_packet* request, uint64_t silence_us,
                                                uint64_t total_us, comm_socket_v4_packet** reply) {
    return call(connection, request, Patience(silence_us, total_us), reply);
}
