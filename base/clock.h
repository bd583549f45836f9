// The one clock of the server. All its times are microseconds of this clock.
#pragma once

#include <cstdint>

// Microseconds since an arbitrary start; never goes back, is not moved by the wall clock. Any thread.
// Unit tests define this function themselves and so run on a clock of their own.
std::uint64_t monotonic_clock_us();
