// The server's process as seen in /proc. Values that this user may not read are absent.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string_view>

struct ProcessInfo {
    std::optional<double> cpu_seconds;   // user and system, of all threads
    std::optional<double> start_time_s;  // since the epoch
    std::optional<std::uint64_t> threads;
    std::optional<std::uint64_t> virtual_bytes;
    std::optional<std::uint64_t> resident_bytes;
    std::optional<std::uint64_t> open_descriptors;  // needs permission to read them
    std::optional<std::uint64_t> max_descriptors;   // also absent if unlimited
};

// Reads the text of /proc/PID/stat, whose second field may contain blanks and parentheses. boot_time_s is the
// machine's boot time since the epoch. On invalid text returns false and leaves info unchanged.
[[nodiscard]] bool read_process_stat(std::string_view stat, double boot_time_s, ProcessInfo& info);

// Returns the values of a running process. All are absent if this process cannot see that one.
[[nodiscard]] ProcessInfo find_process_info(pid_t pid);
