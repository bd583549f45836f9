// Timing for part of a benchmark's loop.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>

// Times only the action, not the rest of the loop, in a benchmark with manual time.
template <typename Action>
void timed(benchmark::State& state, Action action) {
    const auto begin = std::chrono::steady_clock::now();
    action();
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
}
