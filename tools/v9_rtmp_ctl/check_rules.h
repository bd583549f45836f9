// The findings of check, judged from the state of the system. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The values are also the exit statuses of check.
enum class Level : int { OK = 0, WARNING = 1, CRITICAL = 2, UNKNOWN = 3 };

// "ok", "warning", "critical", "unknown"
[[nodiscard]] const char* level_name(Level level);

struct Finding {
    Level level = Level::OK;
    std::string what;  // a word or two
    std::string text;  // what was found and, unless OK, what to do
};

// The order of severity is critical, warning, unknown, OK.
[[nodiscard]] Level worst_of(const std::vector<Finding>& findings);

// Descriptors and threads needed for a full table of clients, with some to spare. The packaged unit of the
// server allows exactly these.
constexpr std::uint64_t NEEDED_DESCRIPTORS = 256;
constexpr std::uint64_t NEEDED_THREADS = 272;

// Returns the soft limit in a row of /proc/PID/limits, such as "Max open files". Empty if the row is absent;
// the largest number for "unlimited".
[[nodiscard]] std::optional<std::uint64_t> find_limit(std::string_view limits, std::string_view row);

// Returns the path of the version 2 cgroup from the text of /proc/PID/cgroup. Empty if there is none.
[[nodiscard]] std::string find_cgroup(std::string_view text);
// Returns the text with the smallest number, such as that of several pids.max. Leaves out "max" and texts
// that are not a number; empty if no text remains.
[[nodiscard]] std::optional<std::string> find_smallest_limit(const std::vector<std::string>& texts);

[[nodiscard]] Finding judge_slots(std::size_t connections);
// limits is the text of /proc/PID/limits; empty if it cannot be read.
[[nodiscard]] Finding judge_descriptor_limit(const std::optional<std::string>& limits);
// pids_max is the pids.max of the cgroup.
[[nodiscard]] Finding judge_thread_limit(const std::optional<std::string>& limits,
                                         const std::optional<std::string>& pids_max);
// memory_max is the memory.max of the cgroup; empty if no limit is set, or if the limit is not known.
[[nodiscard]] Finding judge_memory_limit(bool is_known, const std::optional<std::string>& memory_max);
// target is the target of the link /proc/PID/fd/2.
[[nodiscard]] Finding judge_standard_error(const std::optional<std::string>& target);
[[nodiscard]] Finding judge_clock(bool is_known, bool is_synchronized);
// The values come from /proc/sys; a value that cannot be read is empty.
[[nodiscard]] Finding judge_kernel(const std::optional<std::uint64_t>& somaxconn,
                                   const std::optional<std::uint64_t>& threads_max,
                                   const std::optional<std::uint64_t>& overcommit);
