#include "bench/load/process_costs.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "tests/support/test_failure.h"

namespace {

constexpr std::uint64_t NS_PER_SECOND = 1000000000;

std::string proc_path(pid_t pid) {
    return "/proc/" + std::to_string(pid);
}

// Returns a number in a status file, such as that of "VmRSS:". 0 if the file or the field is missing.
std::uint64_t status_number(const std::string& path, const std::string& field) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(field)) {
            return std::stoull(line.substr(field.size()));
        }
    }
    return 0;
}

std::uint64_t process_cpu_ns(pid_t pid) {
    clockid_t clock = 0;
    timespec time{};
    if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &time) != 0) {
        throw TestFailure("there is no process " + std::to_string(pid));
    }
    return static_cast<std::uint64_t>(time.tv_sec) * NS_PER_SECOND + static_cast<std::uint64_t>(time.tv_nsec);
}

}  // namespace

ProcessCosts ProcessCosts::of(pid_t pid) {
    ProcessCosts costs;
    costs.cpu_ns = process_cpu_ns(pid);
    std::error_code error;
    for (std::filesystem::directory_iterator it(proc_path(pid) + "/task", error), last; !error && it != last;
         it.increment(error)) {
        const std::string task = it->path().string();
        std::uint64_t ns = 0;
        std::ifstream(task + "/schedstat") >> ns;
        costs.threads_ns[static_cast<pid_t>(std::stol(it->path().filename()))] = ns;
        costs.voluntary_switches += status_number(task + "/status", "voluntary_ctxt_switches:");
        costs.involuntary_switches += status_number(task + "/status", "nonvoluntary_ctxt_switches:");
    }
    costs.main_ns = costs.threads_ns[pid];
    costs.rss_kib = resident_kib(pid);
    return costs;
}

std::size_t resident_kib(pid_t pid) {
    return status_number(proc_path(pid) + "/status", "VmRSS:");
}

std::uint64_t busiest_thread_ns(const ProcessCosts& before, const ProcessCosts& after) {
    std::uint64_t most = 0;
    for (const auto& [thread, ns] : after.threads_ns) {
        const auto found = before.threads_ns.find(thread);
        most = std::max(most, ns - (found != before.threads_ns.end() ? found->second : 0));
    }
    return most;
}

MachineCosts MachineCosts::now() {
    constexpr int FIELDS = 8;
    constexpr int IDLE_FIELD = 3;
    constexpr int WAITING_FIELD = 4;
    MachineCosts costs;
    std::ifstream file("/proc/stat");
    std::string name;
    file >> name;
    for (int i = 0; i < FIELDS; ++i) {
        std::uint64_t ticks = 0;
        file >> ticks;
        costs.all_ticks += ticks;
        costs.idle_ticks += i == IDLE_FIELD || i == WAITING_FIELD ? ticks : 0;
    }
    return costs;
}

double MachineCosts::busy_percent(const MachineCosts& before, const MachineCosts& after) {
    const auto all = static_cast<double>(after.all_ticks - before.all_ticks);
    const auto idle = static_cast<double>(after.idle_ticks - before.idle_ticks);
    return all > 0 ? 100 * (all - idle) / all : 0;
}
