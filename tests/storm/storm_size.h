// The size of a run of the storms. The default is small enough for every build; the environment can raise it.
// Numbers are totals over all shards.
#pragma once

#include <cstddef>
#include <cstdint>

// The number of servers that are stormed in parallel, each in its own namespaces. One server accepts a
// hundred clients a second.
constexpr int STORM_SHARDS = 4;

// Returns the value of the variable, or the default, which is lower under a sanitizer because it is several
// times slower.
std::size_t storm_count(const char* variable, std::size_t in_release, std::size_t under_a_sanitizer);

// Returns V9_STORM_SEED, or a new seed each time. Prints on standard output how to repeat the run.
std::uint64_t storm_seed();

// How much the second half of a storm may add to the memory used after the first half. A leak of 200 bytes
// for each of a thousand connections exceeds it.
constexpr std::size_t ALLOWED_GROWTH_KIB = 256;
