// The clock of unit tests, linked in place of the real one. It advances only when a test moves it.
#pragma once

#include <cstdint>

extern std::uint64_t fake_clock_us;
