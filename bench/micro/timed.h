// For benchmarks of which only a part is timed.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>

// Times only what the action does, and not what stands around it in the loop of a benchmark with manual time.
template <typename Action>
void timed(benchmark::State& state, Action action) {
    const auto begin = std::chrono::steady_clock::now();
    action();
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
}
