// What processes and the machine have used so far, as the kernel counts it; costs are differences of two
// of these.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>

struct ProcessCosts {
    // Throws TestFailure when there is no such process.
    static ProcessCosts of(pid_t pid);

    std::uint64_t cpu_ns = 0;  // all threads, those that have ended included
    std::uint64_t main_ns = 0;
    std::map<pid_t, std::uint64_t> threads_ns;
    // Of the threads that live.
    std::uint64_t voluntary_switches = 0;
    std::uint64_t involuntary_switches = 0;
    std::size_t rss_kib = 0;
};

std::size_t resident_kib(pid_t pid);

// CPU time of the thread that has used most since.
std::uint64_t busiest_thread_ns(const ProcessCosts& before, const ProcessCosts& after);

struct MachineCosts {
    static MachineCosts now();
    // Of all cores, in per cent.
    static double busy_percent(const MachineCosts& before, const MachineCosts& after);

    std::uint64_t all_ticks = 0;
    std::uint64_t idle_ticks = 0;
};
