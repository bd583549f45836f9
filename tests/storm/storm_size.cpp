#include "tests/storm/storm_size.h"

#include <cstdlib>
#include <iostream>
#include <random>
#include <string>

#include "tests/support/time_limits.h"

std::size_t storm_count(const char* variable, std::size_t in_release, std::size_t under_a_sanitizer) {
    if (const char* given = std::getenv(variable)) {
        return std::stoul(given);
    }
    return TIME_SCALE > 1 ? under_a_sanitizer : in_release;
}

std::uint64_t storm_seed() {
    const char* given = std::getenv("V9_STORM_SEED");
    const std::uint64_t seed = given != nullptr ? std::stoull(given) : std::random_device()();
    std::cout << "V9_STORM_SEED=" << seed << '\n';
    return seed;
}
