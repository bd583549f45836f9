// Errors of a read or write on a non-blocking descriptor.
#pragma once

#include <cerrno>

// Whether the call can be tried again: it was interrupted, or would have had to wait.
[[nodiscard]] inline bool can_try_again(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}
