#include "tools/v9_rtmp_ctl/check_rules.h"

#include <algorithm>
#include <limits>
#include <sstream>

#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/parse_number.h"
#include "tools/v9_rtmp_ctl/text.h"

namespace {

constexpr std::uint64_t UNLIMITED = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t NEEDED_BACKLOG = 20;
// Memory for the server and a full table of clients, without data queued for slow players.
constexpr std::uint64_t SERVER_MEMORY_BYTES = std::uint64_t{160} << 20U;
constexpr std::uint64_t CLIENT_MEMORY_BYTES = std::uint64_t{13} << 20U;
constexpr std::uint64_t NEEDED_MEMORY_BYTES = SERVER_MEMORY_BYTES + SLOT_COUNT * CLIENT_MEMORY_BYTES;
constexpr std::size_t FEW_SLOTS = 13;  // a tenth of all slots

std::string trimmed(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(" \n");
    const std::size_t end = text.find_last_not_of(" \n");
    return begin == std::string_view::npos ? std::string() : std::string(text.substr(begin, end - begin + 1));
}

// "max" means no limit.
std::optional<std::uint64_t> read_limit(const std::optional<std::string>& text) {
    std::uint64_t number = 0;
    if (!text || !parse_number(trimmed(*text), number)) {
        return std::nullopt;
    }
    return number;
}

Finding unreadable(const std::string& what) {
    return {Level::UNKNOWN, what, "this user may not inspect the server's process. Run this again as root."};
}

}  // namespace

const char* level_name(Level level) {
    switch (level) {
        case Level::OK:
            return "ok";
        case Level::WARNING:
            return "warning";
        case Level::CRITICAL:
            return "critical";
        case Level::UNKNOWN:
            return "unknown";
    }
    return "";
}

Level worst_of(const std::vector<Finding>& findings) {
    for (const Level level : {Level::CRITICAL, Level::WARNING, Level::UNKNOWN}) {
        if (std::any_of(findings.begin(), findings.end(),
                        [level](const Finding& f) { return f.level == level; })) {
            return level;
        }
    }
    return Level::OK;
}

std::optional<std::uint64_t> find_limit(std::string_view limits, std::string_view row) {
    std::istringstream lines{std::string(limits)};
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(row)) {
            std::string soft;
            std::istringstream(line.substr(row.size())) >> soft;
            std::uint64_t number = UNLIMITED;
            return soft == "unlimited" || parse_number(soft, number) ? std::optional(number) : std::nullopt;
        }
    }
    return std::nullopt;
}

std::string find_cgroup(std::string_view text) {
    constexpr std::string_view VERSION_2 = "0::";
    std::istringstream lines{std::string(text)};
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(VERSION_2)) {
            return line.substr(VERSION_2.size());
        }
    }
    return "";
}

std::optional<std::string> find_smallest_limit(const std::vector<std::string>& texts) {
    std::optional<std::string> smallest;
    for (const std::string& text : texts) {
        const std::optional<std::uint64_t> limit = read_limit(text);
        if (limit && *limit < read_limit(smallest).value_or(UNLIMITED)) {
            smallest = text;
        }
    }
    return smallest;
}

Finding judge_slots(std::size_t connections) {
    const std::string used =
        std::to_string(connections) + " of " + std::to_string(SLOT_COUNT) + " slots are used";
    if (connections >= SLOT_COUNT) {
        return {Level::CRITICAL, "slots",
                used + ": no client can connect. See 'v9_rtmp_ctl list', and run the watchdog."};
    }
    if (connections + FEW_SLOTS > SLOT_COUNT) {
        return {Level::WARNING, "slots", used + ". See 'v9_rtmp_ctl list' for clients that you can drop."};
    }
    return {Level::OK, "slots", used};
}

Finding judge_descriptor_limit(const std::optional<std::string>& limits) {
    const std::optional<std::uint64_t> limit = limits ? find_limit(*limits, "Max open files") : std::nullopt;
    if (!limit) {
        return unreadable("descriptors");
    }
    if (*limit < NEEDED_DESCRIPTORS) {
        return {Level::WARNING, "descriptors",
                "the server may open " + std::to_string(*limit) +
                    " files, fewer than a full table needs. Start it with " +
                    std::to_string(NEEDED_DESCRIPTORS) + " or more (ulimit -n, LimitNOFILE)."};
    }
    return {Level::OK, "descriptors", "the limit is high enough"};
}

Finding judge_thread_limit(const std::optional<std::string>& limits,
                           const std::optional<std::string>& pids_max) {
    const std::optional<std::uint64_t> processes =
        limits ? find_limit(*limits, "Max processes") : std::nullopt;
    if (!processes) {
        return unreadable("threads");
    }
    const std::uint64_t limit = std::min(*processes, read_limit(pids_max).value_or(UNLIMITED));
    if (limit < NEEDED_THREADS) {
        return {Level::WARNING, "threads",
                "the server may have " + std::to_string(limit) +
                    " threads, and needs two for each client. Allow " + std::to_string(NEEDED_THREADS) +
                    " or more (ulimit -u, TasksMax)."};
    }
    return {Level::OK, "threads", "the limit is high enough"};
}

Finding judge_memory_limit(bool is_known, const std::optional<std::string>& memory_max) {
    if (!is_known) {
        return {Level::UNKNOWN, "memory limit",
                "only version 2 control groups show it, and none is visible here. Run 'systemctl show -p "
                "MemoryMax' on the server's unit."};
    }
    const std::optional<std::uint64_t> limit = read_limit(memory_max);
    if (!limit) {
        return {Level::WARNING, "memory limit",
                "the server has none, and the queue of a player that does not read is not limited either. "
                "Run the watchdog, "
                "and set MemoryMax in the server's unit."};
    }
    if (*limit < NEEDED_MEMORY_BYTES) {
        return {Level::WARNING, "memory limit",
                format_bytes(limit) +
                    " is less than the server and a full table of clients may need. Allow " +
                    format_bytes(NEEDED_MEMORY_BYTES) + " or more (MemoryMax)."};
    }
    return {Level::OK, "memory limit", format_bytes(limit)};
}

Finding judge_standard_error(const std::optional<std::string>& target) {
    if (!target) {
        return unreadable("log");
    }
    const std::string place = escape_untrusted(*target);
    if (target->starts_with("pipe:")) {
        return {Level::WARNING, "log",
                "standard error goes to a pipe: the relay stops if the process that reads the pipe stops "
                "reading. "
                "Send it to the journal, or redirect it to /dev/null."};
    }
    if (target->starts_with("/dev/pts/") || target->starts_with("/dev/tty")) {
        return {Level::WARNING, "log",
                "standard error goes to the terminal " + place +
                    ": the relay stops while the terminal's output is paused (Ctrl-S). Start the server as a "
                    "service."};
    }
    if (target->starts_with("/") && *target != "/dev/null") {
        return {Level::WARNING, "log",
                "standard error goes to " + place +
                    ", which untrusted clients can fill. Send it to the journal, with a size limit, or "
                    "redirect it to /dev/null."};
    }
    return {Level::OK, "log", "standard error goes to " + place};
}

Finding judge_clock(bool is_known, bool is_synchronized) {
    if (!is_known) {
        return {Level::UNKNOWN, "clock",
                "the kernel does not report whether it is synchronized. Run timedatectl."};
    }
    if (!is_synchronized) {
        return {Level::WARNING, "clock",
                "it is not synchronized, so times in logs of several machines cannot be compared. Run a "
                "time service "
                "such as systemd-timesyncd."};
    }
    return {Level::OK, "clock", "it is synchronized"};
}

Finding judge_kernel(const std::optional<std::uint64_t>& somaxconn,
                     const std::optional<std::uint64_t>& threads_max,
                     const std::optional<std::uint64_t>& overcommit) {
    constexpr std::uint64_t NEVER = 2;
    if (somaxconn && *somaxconn < NEEDED_BACKLOG) {
        return {Level::WARNING, "kernel",
                "net.core.somaxconn is " + std::to_string(*somaxconn) +
                    ": if many clients connect at the same time, some attempts are dropped and repeated "
                    "later. Set " +
                    std::to_string(NEEDED_BACKLOG) + " or more with sysctl."};
    }
    if (threads_max && *threads_max < 2 * NEEDED_THREADS) {
        return {Level::WARNING, "kernel",
                "kernel.threads-max is " + std::to_string(*threads_max) + ". Set " +
                    std::to_string(2 * NEEDED_THREADS) + " or more with sysctl."};
    }
    if (overcommit == NEVER) {
        return {Level::WARNING, "kernel",
                "vm.overcommit_memory is 2: the stacks of 257 threads, 8 MiB each by default, must fit into "
                "memory. Set it to "
                "0 with sysctl, or start the server with a smaller stack (ulimit -s)."};
    }
    if (!somaxconn || !threads_max || !overcommit) {
        return {Level::UNKNOWN, "kernel",
                "/proc/sys does not show its settings. Run this outside the container."};
    }
    return {Level::OK, "kernel", "kernel settings are sufficient"};
}
