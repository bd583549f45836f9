// How long a test waits for something that must happen. Nothing waits without a deadline, and no test
// depends on one being short: sanitizer builds, which are slower, get three times as long.
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

// Stretches a deadline for slow builds. Do not use it for times that the server itself keeps.
constexpr Milliseconds scaled(Milliseconds wait) {
    return wait * TIME_SCALE;
}

constexpr Milliseconds DEFAULT_WAIT = scaled(Milliseconds{10000});

// What is left until the deadline, never negative; in a form that poll(2) takes, rounded up.
inline int poll_timeout_ms(TimePoint deadline) {
    const auto left = std::chrono::ceil<Milliseconds>(deadline - SteadyClock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Looks at the condition until it holds; false when it has not within the wait.
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
