// The random 32-bit numbers that clients are given as ids.
#pragma once

#include <cstdint>
#include <cstdlib>

// intended: the product of two draws from the never seeded generator, with wrap-around. Each call draws
// twice, so the sequence of ids is the same in every run with the same clients.
[[nodiscard]] inline std::uint32_t random_product() {
    const auto first = static_cast<std::uint32_t>(std::rand());
    const auto second = static_cast<std::uint32_t>(std::rand());
    return first * second;
}
