// Time limits for events that must happen. Every wait has a deadline, and no test depends on a deadline being
// short. Sanitizer builds are slower and get three times as long.
#pragma once

#include <chrono>
#include <thread>

using Milliseconds = std::chrono::milliseconds;
using SteadyClock = std::chrono::steady_clock;
using TimePoint = SteadyClock::time_point;

#ifndef V9_TEST_TIME_SCALE
#define V9_TEST_TIME_SCALE 1
#endif

constexpr int TIME_SCALE = V9_TEST_TIME_SCALE;

// Stretches a deadline for slow builds. Do not use it for the server's own times.
constexpr Milliseconds scaled(Milliseconds wait) {
    return wait * TIME_SCALE;
}

constexpr Milliseconds DEFAULT_WAIT = scaled(Milliseconds{10000});

// Returns the time until the deadline for poll(2), rounded up and never negative.
inline int poll_timeout_ms(TimePoint deadline) {
    const auto left = std::chrono::ceil<Milliseconds>(deadline - SteadyClock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Polls the condition until it holds. False if it does not within the wait.
template <typename Condition>
[[nodiscard]] bool holds_within(Milliseconds wait, Condition condition,
                                Milliseconds pause = Milliseconds{1}) {
    const TimePoint deadline = SteadyClock::now() + wait;
    while (!condition()) {
        if (SteadyClock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(pause);
    }
    return true;
}

inline Milliseconds elapsed_since(TimePoint start) {
    return std::chrono::duration_cast<Milliseconds>(SteadyClock::now() - start);
}
