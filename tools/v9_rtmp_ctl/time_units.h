// Times are in microseconds, except in output for people and other programs.
#pragma once

#include <cstdint>

constexpr std::uint64_t US_PER_SECOND = 1000000;
