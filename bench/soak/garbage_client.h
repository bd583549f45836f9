// Clients that send garbage at later and later points of the conversation. The same seed gives the
// same clients.
#pragma once

#include <cstdint>
#include <random>

#include "bench/journal.h"
#include "tests/support/rtmp_client.h"

class GarbageClients {
  public:
    GarbageClients(std::uint32_t seed, Journal& events) : random(seed), journal(events) {}
    // Connects one client, which misbehaves and leaves.
    void step();

  private:
    std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random() % limit); }
    Bytes random_bytes(std::uint32_t at_most);
    Bytes command();
    Bytes damaged(Bytes bytes);
    std::uint8_t any_type();
    void half_greeted();
    void random_chunks();
    void random_messages();
    void damaged_commands();
    void damaged_metadata();
    void garbage_media();

    std::mt19937 random;
    Journal& journal;
    std::size_t steps = 0;
};
