// The clock of unit tests: linked in place of the real one, it stands still until a test moves it.
#pragma once

#include <cstdint>

extern std::uint64_t fake_clock_us;
