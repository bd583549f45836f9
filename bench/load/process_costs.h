// Resources used so far by a process and by the machine, as counted by the kernel. Costs are differences of
// two of these.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>

struct ProcessCosts {
    // Throws TestFailure if there is no such process.
    static ProcessCosts of(pid_t pid);

    std::uint64_t cpu_ns = 0;  // all threads, including ended ones
    std::uint64_t main_ns = 0;
    std::map<pid_t, std::uint64_t> threads_ns;
    // Of living threads only.
    std::uint64_t voluntary_switches = 0;
    std::uint64_t involuntary_switches = 0;
    std::size_t rss_kib = 0;
};

std::size_t resident_kib(pid_t pid);

// Returns the CPU time of the thread that used the most between before and after.
std::uint64_t busiest_thread_ns(const ProcessCosts& before, const ProcessCosts& after);

struct MachineCosts {
    static MachineCosts now();
    // The share of all cores, in percent.
    static double busy_percent(const MachineCosts& before, const MachineCosts& after);

    std::uint64_t all_ticks = 0;
    std::uint64_t idle_ticks = 0;
};
