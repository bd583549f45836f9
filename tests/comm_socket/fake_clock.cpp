#include "tests/comm_socket/fake_clock.h"

#include <time.h>

#include <atomic>

#include "comm_socket/clock.h"

namespace {

std::atomic<std::uint64_t> forward_us{0};

}  // namespace

void put_clock_forward(std::uint64_t us) {
    forward_us += us;
}

std::uint64_t comm_socket::now_us() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000 +
           forward_us;
}
