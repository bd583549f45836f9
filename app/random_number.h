// The random 32-bit numbers that are assigned to clients as ids.
#pragma once

#include <cstdint>
#include <cstdlib>

// Returns the product of two draws from the generator, with wrap-around. intended: the generator is never
// seeded, so the ids repeat in every run in which the same clients act in the same order.
[[nodiscard]] inline std::uint32_t random_product() {
    const auto first = static_cast<std::uint32_t>(std::rand());
    const auto second = static_cast<std::uint32_t>(std::rand());
    return first * second;
}
