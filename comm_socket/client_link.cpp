#include "comm_socket/client_link.h"

#include <comm_socket_v4.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include "comm_socket/clock.h"
#include "comm_socket/errors.h"

namespace comm_socket {

namespace {

constexpr std::size_t READ_CHUNK_BYTES = 16384;
constexpr std::size_t READ_SHARE_BYTES = 262144;    // per client and call
constexpr std::size_t READ_AHEAD_BYTES = 262144;    // further complete requests stay in the socket
constexpr int SEND_BUFFER_BYTES = 1048576;          // requested; the kernel doubles what it grants
constexpr std::size_t WRITE_SHARE_BYTES = 4194304;  // per client and call; more than the socket holds
constexpr std::size_t PIECES_PER_WRITE = 64;

// Whether the peer has closed both directions. A half-closed peer still reads.
bool peer_is_gone(int fd) {
    pollfd entry = {fd, 0, 0};
    return poll(&entry, 1, 0) > 0 && (entry.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
}

}  // namespace

ClientLink::ClientLink(int connected_fd) : fd(connected_fd), input(REQUEST_LIMITS) {
    // Lets a long reply be sent in few writes. If the kernel grants a smaller buffer, more writes are needed.
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER_BYTES, sizeof SEND_BUFFER_BYTES);
}

ClientLink::~ClientLink() {
    close_socket(EPIPE);
}

void ClientLink::close_socket(int error) {
    if (fd < 0) {
        return;
    }
    close(fd);
    fd = -1;
    if (reply_errno == 0) {
        reply_errno = error;
    }
    output.clear();
    front_written_bytes = 0;
    behind_front_bytes = 0;
}

void ClientLink::drop(int error) {
    close_socket(error);
    input.clear();
}

bool ClientLink::wants_to_read() const {
    switch (input.state()) {
        case FrameState::BROKEN:
            return false;
        case FrameState::INCOMPLETE:
            return true;
        case FrameState::COMPLETE:
            break;
    }
    // A peer that has disconnected can add no more than its socket holds, and then the link is closed.
    return input.size() < READ_AHEAD_BYTES || peer_is_gone(fd);
}

void ClientLink::read_some(std::uint64_t now, std::size_t* budget_bytes) {
    if (fd < 0) {
        return;
    }
    std::size_t share = std::min(READ_SHARE_BYTES, *budget_bytes);
    bool drained = false;
    while (!input_ended && !drained && share > 0 && wants_to_read()) {
        unsigned char chunk[READ_CHUNK_BYTES];
        const ssize_t n = recv(fd, chunk, std::min(sizeof chunk, share), MSG_DONTWAIT);
        if (n > 0) {
            const auto bytes = static_cast<std::size_t>(n);
            input.append(chunk, bytes);
            share -= bytes;
            *budget_bytes -= bytes;
        } else if (n == 0) {
            input_ended = true;
        } else if (would_block(errno)) {
            drained = true;
        } else if (errno != EINTR) {
            input_ended = true;
            close_socket(errno);
        }
    }
    test_input_after_reading(now, drained);
}

void ClientLink::test_input_after_reading(std::uint64_t now, bool drained) {
    const FrameState state = input.state();
    if (state == FrameState::BROKEN) {
        drop(ECONNRESET);
        return;
    }
    if (input_ended && state == FrameState::INCOMPLETE) {
        input.clear();
    }
    if (fd >= 0 && ((input_ended && peer_is_gone(fd)) || (drained && reply_errno != 0))) {
        close_socket(EPIPE);
    }

    if (state == FrameState::COMPLETE || input.size() == 0) {
        frame_started_us = 0;
    } else if (frame_started_us == 0) {
        frame_started_us = now;
    } else if (drained && now - frame_started_us >= COMM_SOCKET_V4_CLIENT_TIMEOUT_US) {
        // Only after everything that was sent has been read: a busy server is not the client's fault.
        drop(ECONNRESET);
    }
}

bool ClientLink::take_request(FrameHead* head, FrameText* text) {
    if (!input.take(head, text)) {
        drop(ECONNRESET);
        return false;
    }
    frame_started_us = 0;
    return true;
}

void ClientLink::finish() {
    if (fd >= 0 && input_ended && !has_complete_frame() && output.empty()) {
        close_socket(EPIPE);
    }
}

bool ClientLink::can_queue() const {
    return behind_front_bytes <= COMM_SOCKET_V4_MAX_WAITING_BYTES;
}

std::size_t ClientLink::waiting_bytes() const {
    return output.empty() ? 0 : output.front().size() - front_written_bytes + behind_front_bytes;
}

void ClientLink::queue(OutgoingFrame&& frame) {
    const std::size_t bytes = frame.size();
    output.push_back(std::move(frame));
    if (output.size() > 1) {
        behind_front_bytes += bytes;
        return;  // the previous one is not sent yet: the socket is full
    }
    write_progress_us = now_us();
    std::size_t budget = WRITE_SHARE_BYTES;
    write_some(write_progress_us, COMM_SOCKET_V4_CLIENT_TIMEOUT_US, &budget);
}

bool ClientLink::write_once(std::size_t limit_bytes, std::size_t* written) {
    iovec pieces[PIECES_PER_WRITE];
    std::size_t count = 0;
    std::size_t skip = front_written_bytes;
    for (auto frame = output.begin(); frame != output.end(); ++frame) {
        for (std::size_t i = 0; i < frame->piece_count() && count < PIECES_PER_WRITE && limit_bytes > 0;
             ++i) {
            std::string_view piece = frame->piece(i);
            const std::size_t skipped = std::min(skip, piece.size());
            skip -= skipped;
            piece = piece.substr(skipped, limit_bytes);
            if (!piece.empty()) {
                pieces[count++] = {const_cast<char*>(piece.data()), piece.size()};  // sendmsg only reads
                limit_bytes -= piece.size();
            }
        }
        if (count == PIECES_PER_WRITE || limit_bytes == 0) {
            break;
        }
    }
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = count;
    const ssize_t n = sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n >= 0) {
        *written = static_cast<std::size_t>(n);
        remove_written(*written);
        return true;
    }
    if (errno == EINTR) {
        return true;
    }
    if (!would_block(errno)) {
        // The socket stays open for reading: requests sent before the disconnect are still valid.
        reply_errno = errno;
        output.clear();
        front_written_bytes = 0;
        behind_front_bytes = 0;
    }
    return false;
}

void ClientLink::remove_written(std::size_t bytes) {
    written_bytes += bytes;
    while (bytes > 0) {
        const std::size_t front_left = output.front().size() - front_written_bytes;
        if (bytes < front_left) {
            front_written_bytes += bytes;
            return;
        }
        bytes -= front_left;
        front_written_bytes = 0;
        output.pop_front();
        if (!output.empty()) {
            behind_front_bytes -= output.front().size();
        }
    }
}

void ClientLink::write_some(std::uint64_t now, std::uint64_t stall_limit_us, std::size_t* budget_bytes) {
    std::size_t share = std::min(WRITE_SHARE_BYTES, *budget_bytes);
    bool blocked = false;
    while (fd >= 0 && !output.empty() && share > 0 && !blocked) {
        std::size_t written = 0;
        blocked = !write_once(share, &written);
        share -= written;
        *budget_bytes -= written;
        if (written > 0) {
            write_progress_us = now;
        }
    }
    if (blocked && !output.empty() && now - write_progress_us >= stall_limit_us) {
        drop(ETIMEDOUT);
    }
}

void ClientLink::wait_until_writable(std::uint64_t deadline_us) {
    const std::uint64_t written_before = written_bytes;
    while (fd >= 0) {
        std::size_t budget = WRITE_SHARE_BYTES;
        write_some(now_us(), COMM_SOCKET_V4_CLIENT_TIMEOUT_US, &budget);
        if (reply_errno != 0 || can_queue()) {
            return;
        }
        const int left_ms = poll_time_left_ms(deadline_us);
        if (left_ms == 0) {
            break;
        }
        pollfd entry = {fd, POLLOUT, 0};
        poll(&entry, 1, left_ms);
    }
    if (fd >= 0 && written_bytes == written_before) {
        drop(ETIMEDOUT);
    }
}

}  // namespace comm_socket
