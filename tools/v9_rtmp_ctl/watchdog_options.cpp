#include "tools/v9_rtmp_ctl/watchdog_options.h"

#include <CLI/CLI.hpp>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "tools/v9_rtmp_ctl/option_checks.h"
#include "tools/v9_rtmp_ctl/parse_number.h"
#include "tools/v9_rtmp_ctl/selection.h"
#include "tools/v9_rtmp_ctl/text.h"
#include "tools/v9_rtmp_ctl/time_units.h"

namespace {

constexpr const char* OFF = "off";
constexpr double MIN_LIMIT_SECONDS = 0.1;

// The text has passed the checks of the options.
std::uint64_t microseconds(const std::string& text) {
    return static_cast<std::uint64_t>(read_seconds(text).value() * US_PER_SECOND);
}

void read_limit(const std::string& text, std::optional<std::uint64_t>& limit_us) {
    if (text == OFF) {
        limit_us.reset();
    } else if (!text.empty()) {
        limit_us = microseconds(text);
    }
}

CLI::Validator bytes_or_off() {
    return CLI::Validator(
        [](const std::string& text) {
            std::size_t bytes = 0;
            return text == OFF || (parse_number(text, bytes) && bytes > 0)
                       ? std::string()
                       : "'" + escape_untrusted(text) + "' is neither 'off' nor a positive number of bytes";
        },
        "");
}

// If both the file and the command line give a value, the one on the command line comes last and is used.
CLI::Option& add_limit(CLI::App& command, const std::string& name, std::string& text,
                       const std::string& default_text, const std::string& help) {
    return *command.add_option(name, text, help)
                ->default_str(default_text)
                ->type_name("SECONDS")
                ->take_last()
                ->check(seconds_or_off(MIN_LIMIT_SECONDS));
}

}  // namespace

void add_watchdog_options(CLI::App& command, WatchdogOptions& options, WatchdogTexts& texts) {
    add_limit(command, "--stalled", texts.stalled, "30",
              "Drop a player that receives nothing for this long while others receive data");
    add_limit(command, "--behind", texts.behind, "15", "Drop a player that is this far behind its stream");
    add_limit(command, "--unnamed", texts.unnamed, "20",
              "Drop a client that has had no stream name for this long");
    add_limit(command, "--silent", texts.silent, "30", "Drop a publisher that sends nothing for this long");
    add_limit(command, "--contested", texts.contested, "15",
              "The same, while another publisher of the name waits");
    add_limit(command, "--age", texts.age, "16200", "Drop a player before its timestamps exceed 24 bits");
    command.add_option("--stagger", texts.stagger, "Time between two such drops in a stream")
        ->default_str("4")
        ->type_name("SECONDS")
        ->take_last()
        ->check(seconds(0));
    command.add_option("--long-name", texts.long_name, "Drop a client whose stream name is longer than this")
        ->default_str("200")
        ->type_name("BYTES")
        ->take_last()
        ->check(bytes_or_off());
    command.add_option("--publish-from", texts.publish_from, "Drop publishers from any other address")
        ->type_name("CIDR")
        ->check(address_range());
    command.add_option("--interval", options.interval_seconds, "Time between two listings")
        ->capture_default_str()
        ->type_name("SECONDS")
        ->take_last()
        ->check(seconds(MIN_INTERVAL_SECONDS));
    command
        .add_option("--settle", options.settle_seconds,
                    "Time from a client's choice of a stream until the client is compared with others")
        ->capture_default_str()
        ->type_name("SECONDS")
        ->take_last()
        ->check(seconds(0));
    command
        .add_option("--state", options.state_directory,
                    "Keep first-seen times and counters in this directory")
        ->capture_default_str()
        ->type_name("DIR")
        ->take_last()
        ->envname("RUNTIME_DIRECTORY");
    command
        .add_option("--config", options.config_path,
                    "Also read options, such as 'stalled = 30', from this file")
        ->type_name("FILE");
    command.add_flag("-n,--dry-run", options.dry_run, "Only print what would be dropped");
}

WatchdogLimits read_limits(const WatchdogTexts& texts) {
    WatchdogLimits limits;
    read_limit(texts.stalled, limits.stalled_us);
    read_limit(texts.behind, limits.behind_us);
    read_limit(texts.unnamed, limits.unnamed_us);
    read_limit(texts.silent, limits.silent_us);
    read_limit(texts.contested, limits.contested_us);
    read_limit(texts.age, limits.age_us);
    if (!texts.stagger.empty()) {
        limits.stagger_us = microseconds(texts.stagger);
    }
    std::size_t bytes = 0;
    if (texts.long_name == OFF) {
        limits.long_name_bytes.reset();
    } else if (parse_number(texts.long_name, bytes)) {
        limits.long_name_bytes = bytes;
    }
    for (const std::string& range : texts.publish_from) {
        limits.publish_from.push_back(*parse_address_range(range));
    }
    return limits;
}
