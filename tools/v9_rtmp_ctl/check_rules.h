// What check finds, judged from what the system shows. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Also the exit status of check.
enum class Level : int { OK = 0, WARNING = 1, CRITICAL = 2, UNKNOWN = 3 };

// "ok", "warning", "critical", "unknown"
[[nodiscard]] const char* level_name(Level level);

struct Finding {
    Level level = Level::OK;
    std::string what;  // a word or two
    std::string text;  // what was found; unless OK also what to do
};

// Critical before warning before unknown before OK.
[[nodiscard]] Level worst_of(const std::vector<Finding>& findings);

// Descriptors and threads that a full table of clients needs, with some to spare.
constexpr std::uint64_t NEEDED_DESCRIPTORS = 256;
constexpr std::uint64_t NEEDED_THREADS = 300;

// The soft limit of a row such as "Max open files" of /proc/PID/limits; nothing when the row is absent, the
// largest number for "unlimited".
[[nodiscard]] std::optional<std::uint64_t> find_limit(std::string_view limits, std::string_view row);

// The path of the cgroup of version 2 in /proc/PID/cgroup; empty when there is none.
[[nodiscard]] std::string find_cgroup(std::string_view text);

[[nodiscard]] Finding judge_slots(std::size_t connections);
// limits is /proc/PID/limits; nothing when it cannot be read.
[[nodiscard]] Finding judge_descriptor_limit(const std::optional<std::string>& limits);
// pids_max is that of the cgroup.
[[nodiscard]] Finding judge_thread_limit(const std::optional<std::string>& limits,
                                         const std::optional<std::string>& pids_max);
// memory_max is that of the cgroup; nothing when it has none, or if it is not known.
[[nodiscard]] Finding judge_memory_limit(bool is_known, const std::optional<std::string>& memory_max);
// target is where /proc/PID/fd/2 leads.
[[nodiscard]] Finding judge_standard_error(const std::optional<std::string>& target);
[[nodiscard]] Finding judge_clock(bool is_known, bool is_synchronized);
// Of /proc/sys; nothing for one that cannot be read.
[[nodiscard]] Finding judge_kernel(const std::optional<std::uint64_t>& somaxconn,
                                   const std::optional<std::uint64_t>& threads_max,
                                   const std::optional<std::uint64_t>& overcommit);
