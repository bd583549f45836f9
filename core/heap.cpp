#include "core/heap.h"

#include <malloc.h>

#include <cstdint>

#include "base/clock.h"

namespace {

constexpr int GIVE_BACK_BYTES = 65536;
// It is cheaper to keep pages that will soon be needed again than to return them.
constexpr std::uint64_t GIVE_BACK_DELAY_US = 10000000;

std::uint64_t give_back_at_us GUARDED_BY(MAIN_THREAD) = 0;  // 0 if nothing is to be returned

}  // namespace

void use_one_small_heap() {
    mallopt(M_ARENA_MAX, 1);
    mallopt(M_MMAP_THRESHOLD, GIVE_BACK_BYTES);
    mallopt(M_TRIM_THRESHOLD, GIVE_BACK_BYTES);
}

void expect_free_memory() {
    if (give_back_at_us == 0) {
        give_back_at_us = monotonic_clock_us() + GIVE_BACK_DELAY_US;
    }
}

void give_back_free_memory() {
    if (give_back_at_us != 0 && monotonic_clock_us() >= give_back_at_us) {
        give_back_at_us = 0;
        malloc_trim(0);
    }
}
