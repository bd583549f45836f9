// Errors of a read or write on a non-blocking descriptor.
#pragma once

#include <cerrno>

// Whether to retry the call: it was interrupted, or would block.
[[nodiscard]] inline bool can_try_again(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}
