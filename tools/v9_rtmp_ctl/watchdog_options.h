// The options of the watchdog, from the command line and its option file.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/watchdog_rules.h"

// Limits as text: a number or "off". Empty for the default.
struct WatchdogTexts {
    std::string stalled;
    std::string behind;
    std::string unnamed;
    std::string silent;
    std::string contested;
    std::string age;
    std::string long_name;
    std::string stagger;
    std::vector<std::string> publish_from;
};

void add_watchdog_options(CLI::App& command, WatchdogOptions& options, WatchdogTexts& texts);

// The texts must have passed the option checks.
[[nodiscard]] WatchdogLimits read_limits(const WatchdogTexts& texts);
