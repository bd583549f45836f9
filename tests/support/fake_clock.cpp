#include "tests/support/fake_clock.h"

#include "base/clock.h"

std::uint64_t fake_clock_us = 1000000000;

std::uint64_t monotonic_clock_us() {
    return fake_clock_us;
}
