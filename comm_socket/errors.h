// Helpers for errno, shared by the client and the server.
#pragma once

#include <cerrno>

namespace comm_socket {

// Sets errno and returns -1.
inline int refuse(int error) {
    errno = error;
    return -1;
}

// Whether a call on a non-blocking socket failed only because it would have to wait.
inline bool would_block(int error) {
    return error == EAGAIN || error == EWOULDBLOCK;
}

}  // namespace comm_socket
