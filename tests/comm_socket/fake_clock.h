// The library's clock in these tests: the real one, which a test can put forward.
#pragma once

#include <cstdint>

void put_clock_forward(std::uint64_t us);
