// How much a run of the storms does: little enough for every build by default, as much as wanted through the
// environment. A number is that of all shards together.
#pragma once

#include <cstddef>
#include <cstdint>

// Servers that are stormed side by side, each in namespaces of its own: one server accepts a hundred clients
// a second.
constexpr int STORM_SHARDS = 4;

// What the variable says, or the default: a sanitizer makes everything several times slower.
std::size_t storm_count(const char* variable, std::size_t in_release, std::size_t under_a_sanitizer);

// V9_STORM_SEED, or a new one each time. Says on standard output how to have it again.
std::uint64_t storm_seed();

// What the second half of a storm may add to the memory that the first half has left. A leak of 200 bytes for
// each of a thousand connections is more.
constexpr std::size_t ALLOWED_GROWTH_KIB = 256;

// For who measures time: a machine that is busy with something else proves nothing about the server. Where it
// is allowed, the calling thread runs before all others. The threads and servers that it starts do not.
void go_first();
