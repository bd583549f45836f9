// Clients that send garbage, further and further into the conversation: the same ones for the same seed.
#pragma once

#include <cstdint>
#include <random>

#include "bench/journal.h"
#include "tests/support/rtmp_client.h"

class GarbageClients {
  public:
    GarbageClients(std::uint32_t seed, Journal& events) : random(seed), journal(events) {}
    // One client comes, misbehaves and goes.
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
