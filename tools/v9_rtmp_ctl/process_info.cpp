#include "tools/v9_rtmp_ctl/process_info.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "tools/v9_rtmp_ctl/parse_number.h"

namespace {

// Of /proc/PID/stat, counted from the field behind the name.
constexpr std::size_t USER_TICKS = 11;
constexpr std::size_t SYSTEM_TICKS = 12;
constexpr std::size_t THREADS = 17;
constexpr std::size_t START_TICKS = 19;
constexpr std::size_t VIRTUAL_BYTES = 20;
constexpr std::size_t RESIDENT_PAGES = 21;

std::string read_whole(const std::string& path) {
    const std::ifstream file(path);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

// The second that follows the word at the beginning of a line; nothing when there is no such line.
std::optional<std::uint64_t> number_behind(std::string_view text, std::string_view word) {
    std::size_t begin = text.starts_with(word) ? 0 : text.find("\n" + std::string(word));
    if (begin == std::string_view::npos) {
        return std::nullopt;
    }
    begin = text.find_first_not_of(' ', begin + (begin == 0 ? 0 : 1) + word.size());
    if (begin == std::string_view::npos) {
        return std::nullopt;
    }
    std::uint64_t number = 0;
    const std::size_t end = text.find_first_of(" \n", begin);
    return parse_number(text.substr(begin, end == std::string_view::npos ? end : end - begin), number)
               ? std::optional(number)
               : std::nullopt;
}

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
    std::vector<std::uint64_t> fields(1);  // the state is no number
    for (std::string word; fields.size() <= RESIDENT_PAGES && words >> word;) {
        std::uint64_t field = 0;
        // Some that are of no interest here are negative.
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

std::optional<std::uint64_t> read_max_descriptors(std::string_view limits) {
    return number_behind(limits, "Max open files");
}

ProcessInfo find_process_info(pid_t pid) {
    ProcessInfo info;
    if (pid <= 0) {
        return info;
    }
    const std::string directory = "/proc/" + std::to_string(pid);
    const std::optional<std::uint64_t> boot_time_s = number_behind(read_whole("/proc/stat"), "btime");
    if (!boot_time_s ||
        !read_process_stat(read_whole(directory + "/stat"), static_cast<double>(*boot_time_s), info)) {
        return info;
    }
    info.max_descriptors = read_max_descriptors(read_whole(directory + "/limits"));
    info.open_descriptors = count_descriptors(directory + "/fd");
    return info;
}
