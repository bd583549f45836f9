// The statistics of the watchdog, kept in a file in its state directory for other programs. Pure.
//
// STATE/watchdog.json is one line, replaced whole every 10 s, after each drop, when a client comes, leaves or
// chooses its stream, and when the watchdog ends:
//
//   {"version":1,"updated_unix_seconds":1760000000,"running":true,"looks":86400,"failed_looks":3,
//    "rules":{"long-name":{"limit":200.0,"drops":0,"misses":0,"left":0},"origin":{...},"unnamed":{...},
//             "contested":{...},"silent":{...},"stalled":{...},"behind":{...},"age":{...}}}
//
// limit is in seconds; for long-name in bytes, for origin the number of address ranges; null for a rule that
// is off. The counters survive a restart of the watchdog: drops, misses (another client was dropped, or it is
// uncertain which client was, if any) and left (the client had already left, or the server refused the drop).
// running is false once a signal has ended the watchdog. If it is true and the file is no longer updated, the
// watchdog has failed.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "tools/v9_rtmp_ctl/watchdog_rules.h"

constexpr const char* WATCHDOG_STATISTICS_FILE = "watchdog.json";
constexpr const char* WATCHDOG_HISTORY_FILE = "history.json";
// Used if systemd sets no RUNTIME_DIRECTORY.
constexpr const char* DEFAULT_WATCHDOG_STATE = "/run/v9_rtmp_watchdog";

struct RuleCounts {
    std::optional<double> limit;
    std::uint64_t drops = 0;
    std::uint64_t misses = 0;
    std::uint64_t left = 0;
};

struct WatchdogStatistics {
    std::int64_t updated_unix_seconds = 0;
    bool running = true;
    std::uint64_t looks = 0;
    std::uint64_t failed_looks = 0;
    std::map<DropRule, RuleCounts> rules;  // all rules
};

// Returns statistics with these limits and all counts at 0.
[[nodiscard]] WatchdogStatistics make_statistics(const WatchdogLimits& limits);

[[nodiscard]] std::string statistics_json(const WatchdogStatistics& statistics);

// Empty if the text is not valid.
[[nodiscard]] std::optional<WatchdogStatistics> parse_statistics(std::string_view json);

// Continues the counts of an earlier watchdog.
void continue_counting(const WatchdogStatistics& earlier, WatchdogStatistics& statistics);
