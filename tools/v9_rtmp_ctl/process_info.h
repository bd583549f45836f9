// What /proc tells of the server's process. What this user may not read is absent.
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
    std::optional<std::uint64_t> open_descriptors;  // needs the right to look at them
    std::optional<std::uint64_t> max_descriptors;   // absent too where there is no limit
};

// Reads "/proc/PID/stat", whose second field may hold blanks and parentheses. boot_time_s is when the machine
// started, since the epoch. False when the text is something else; info is unchanged then.
[[nodiscard]] bool read_process_stat(std::string_view stat, double boot_time_s, ProcessInfo& info);

// Of a process that runs. Everything is absent where the process is out of view.
[[nodiscard]] ProcessInfo find_process_info(pid_t pid);
