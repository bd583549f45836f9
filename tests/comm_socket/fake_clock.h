// The library's clock in these tests: the real one, which a test can advance.
#pragma once

#include <cstdint>

void put_clock_forward(std::uint64_t us);

// While one exists, time passes only by put_clock_forward.
class StoppedClock {
  public:
    StoppedClock();
    ~StoppedClock();
    StoppedClock(const StoppedClock&) = delete;
    StoppedClock& operator=(const StoppedClock&) = delete;
};
