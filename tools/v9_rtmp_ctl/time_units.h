// Times are microseconds, except where a person or another program reads them.
#pragma once

#include <cstdint>

constexpr std::uint64_t US_PER_SECOND = 1000000;
