// Times are in microseconds unless a name says otherwise.
#pragma once

#include <cstdint>

constexpr std::uint64_t US_PER_SECOND = 1000000;
