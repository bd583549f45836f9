// The library's clock: CLOCK_MONOTONIC in microseconds. The deadlines of the public header use it too.
#pragma once

#include <algorithm>
#include <climits>
#include <cstdint>

namespace comm_socket {

// Any thread. Tests replace this function with a clock of their own.
std::uint64_t now_us();

// Returns now + timeout_us, or UINT64_MAX (never) if the sum overflows.
inline std::uint64_t deadline_after(std::uint64_t timeout_us) {
    const std::uint64_t now = now_us();
    return now > UINT64_MAX - timeout_us ? UINT64_MAX : now + timeout_us;
}

// Returns the time left in milliseconds, for poll. Rounded up, so the caller does not spin during the last
// millisecond; 0 if the deadline has passed.
inline int poll_time_left_ms(std::uint64_t deadline_us) {
    const std::uint64_t now = now_us();
    if (deadline_us <= now) {
        return 0;
    }
    const std::uint64_t left_ms = (deadline_us - now - 1) / 1000 + 1;
    return static_cast<int>(std::min<std::uint64_t>(left_ms, INT_MAX));
}

}  // namespace comm_socket
