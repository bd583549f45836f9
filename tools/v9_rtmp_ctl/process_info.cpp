#include "tools/v9_rtmp_ctl/process_info.h"

#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <limits>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "tools/v9_rtmp_ctl/check_rules.h"
#include "tools/v9_rtmp_ctl/parse_number.h"
#include "tools/v9_rtmp_ctl/state_file.h"

namespace {

// Indexes of fields in /proc/PID/stat, counted from the field after the name.
constexpr std::size_t USER_TICKS = 11;
constexpr std::size_t SYSTEM_TICKS = 12;
constexpr std::size_t THREADS = 17;
constexpr std::size_t START_TICKS = 19;
constexpr std::size_t VIRTUAL_BYTES = 20;
constexpr std::size_t RESIDENT_PAGES = 21;

std::optional<std::uint64_t> count_descriptors(const std::string& directory) {
    std::error_code error;
    std::uint64_t count = 0;
    std::filesystem::directory_iterator entries(directory, error);
    for (; !error && entries != std::filesystem::directory_iterator(); entries.increment(error)) {
        ++count;
    }
    return error ? std::nullopt : std::optional(count);
}

}  // namespace

bool read_process_stat(std::string_view stat, double boot_time_s, ProcessInfo& info) {
    const std::size_t end_of_name = stat.rfind(')');
    if (end_of_name == std::string_view::npos) {
        return false;
    }
    std::istringstream words{std::string(stat.substr(end_of_name + 1))};
    std::string state;
    words >> state;
    std::vector<std::uint64_t> fields(1);  // the state is not a number
    for (std::string word; fields.size() <= RESIDENT_PAGES && words >> word;) {
        std::uint64_t field = 0;
        // Some fields not used here are negative.
        fields.push_back(parse_number(word, field) ? field : 0);
    }
    if (fields.size() <= RESIDENT_PAGES) {
        return false;
    }
    const auto ticks_per_second = static_cast<double>(sysconf(_SC_CLK_TCK));
    info.cpu_seconds = static_cast<double>(fields[USER_TICKS] + fields[SYSTEM_TICKS]) / ticks_per_second;
    info.start_time_s = boot_time_s + static_cast<double>(fields[START_TICKS]) / ticks_per_second;
    info.threads = fields[THREADS];
    info.virtual_bytes = fields[VIRTUAL_BYTES];
    info.resident_bytes = fields[RESIDENT_PAGES] * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    return true;
}

ProcessInfo find_process_info(pid_t pid) {
    ProcessInfo info;
    if (pid <= 0) {
        return info;
    }
    const std::string directory = "/proc/" + std::to_string(pid);
    const std::optional<std::uint64_t> boot_time_s =
        find_limit(read_file("/proc/stat").value_or(""), "btime");
    if (!boot_time_s || !read_process_stat(read_file(directory + "/stat").value_or(""),
                                           static_cast<double>(*boot_time_s), info)) {
        return info;
    }
    const std::optional<std::uint64_t> limit =
        find_limit(read_file(directory + "/limits").value_or(""), "Max open files");
    constexpr std::uint64_t UNLIMITED = std::numeric_limits<std::uint64_t>::max();
    if (limit && *limit != UNLIMITED) {
        info.max_descriptors = limit;
    }
    info.open_descriptors = count_descriptors(directory + "/fd");
    return info;
}
