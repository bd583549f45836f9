// Limits that more than one folder must agree on.
#pragma once

#include <cstddef>

// Slots of the connection table: the most clients served at the same time.
constexpr std::size_t MAX_CONNECTIONS = 128;

// The slot index that means "no connection".
constexpr std::size_t NO_CONNECTION = static_cast<std::size_t>(-1);
