// The library's clock: CLOCK_MONOTONIC in microseconds, the clock of the deadlines in the public header.
#pragma once

#include <algorithm>
#include <climits>
#include <cstdint>

namespace comm_socket {

// Any thread. Tests define this function themselves and so move the time.
std::uint64_t now_us();

// now + timeout_us; a sum that does not fit is "never".
inline std::uint64_t deadline_after(std::uint64_t timeout_us) {
    const std::uint64_t now = now_us();
    return now > UINT64_MAX - timeout_us ? UINT64_MAX : now + timeout_us;
}

// For poll: the time left in milliseconds, rounded up so that a short rest does not spin; 0 when it has
// passed.
inline int poll_time_left_ms(std::uint64_t deadline_us) {
    const std::uint64_t now = now_us();
    if (deadline_us <= now)
        return 0;
    const std::uint64_t left_ms = (deadline_us - now - 1) / 1000 + 1;
    return static_cast<int>(std::min<std::uint64_t>(left_ms, INT_MAX));
}

}  // namespace comm_socket
