// The server's only clock. All times in the server, except media timestamps, are in microseconds on
// this clock.
#pragma once

#include <cstdint>

constexpr std::uint64_t US_PER_MS = 1000;

// Returns the microseconds since an arbitrary start. Never decreases, and is not affected by changes to the
// wall clock. Any thread. Unit tests replace this function with a clock of their own.
std::uint64_t monotonic_clock_us();
