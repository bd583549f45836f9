#include "tests/comm_socket/fake_clock.h"

#include <time.h>

#include <atomic>

#include "comm_socket/clock.h"

namespace {

std::atomic<std::uint64_t> forward_us{0};
std::atomic<std::uint64_t> stopped_at_us{0};  // 0: it runs

std::uint64_t real_us() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000;
}

}  // namespace

void put_clock_forward(std::uint64_t us) {
    forward_us += us;
}

StoppedClock::StoppedClock() {
    stopped_at_us = real_us();
}

StoppedClock::~StoppedClock() {
    stopped_at_us = 0;
}

std::uint64_t comm_socket::now_us() {
    const std::uint64_t stopped = stopped_at_us;
    return (stopped != 0 ? stopped : real_us()) + forward_us;
}
