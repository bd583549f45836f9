#include "tools/v9_rtmp_ctl/command_line.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "tools/v9_rtmp_ctl/check_rules.h"
#include "tools/v9_rtmp_ctl/command_parser.h"
#include "tools/v9_rtmp_ctl/config_file.h"
#include "tools/v9_rtmp_ctl/text.h"
#include "tools/v9_rtmp_ctl/time_units.h"
#include "tools/v9_rtmp_ctl/usage_failure.h"

namespace {

bool is_option(const std::string& word) {
    return word.size() > 1 && word[0] == '-' && word != "--";
}

// Returns the index of the first word from idx on that is neither an option nor an option's value.
std::size_t skip_options(const std::vector<std::string>& words, std::size_t idx) {
    while (idx < words.size() && is_option(words[idx])) {
        idx += takes_value(words[idx]) ? 2 : 1;
    }
    return std::min(idx, words.size());
}

// Several listings are needed to see whether a counter grows steadily.
constexpr double LISTINGS_PER_LIMIT = 4;

std::optional<Failure> check_combinations(const CommandLine& line, bool has_request) {
    if (line.subcommand == Subcommand::RAW && !has_request) {
        return usage_failure("raw needs a COMMAND to send, for example: v9_rtmp_ctl raw hello", "raw");
    }
    if (line.subcommand == Subcommand::WATCH && line.settings.form == OutputForm::PLAIN) {
        return usage_failure("watch has no --plain form; use 'watch --json', or repeat 'list --plain'",
                             "watch");
    }
    if (line.subcommand == Subcommand::METRICS && line.metrics.interval_seconds &&
        line.metrics.file.empty()) {
        return usage_failure("'metrics --interval' needs a file to write: -o FILE", "metrics");
    }
    if (line.subcommand == Subcommand::SERVE && line.serve.allow_drop != !line.serve.token_file.empty()) {
        return usage_failure("--allow-drop and --token-file go together: a drop needs the token in that file",
                             "serve");
    }
    if (line.subcommand == Subcommand::EVENTS && line.settings.form == OutputForm::PLAIN) {
        return usage_failure("events has no --plain form; use 'events --json'", "events");
    }
    if (line.subcommand == Subcommand::WATCHDOG && line.settings.form == OutputForm::PLAIN) {
        return usage_failure("watchdog has no --plain form; use 'watchdog --json'", "watchdog");
    }
    const WatchdogLimits& limits = line.watchdog.limits;
    const double shortest_us = LISTINGS_PER_LIMIT * line.watchdog.interval_seconds * US_PER_SECOND;
    const std::uint64_t limit_us =
        std::min(limits.stalled_us.value_or(UINT64_MAX), limits.behind_us.value_or(UINT64_MAX));
    if (line.subcommand == Subcommand::WATCHDOG && static_cast<double>(limit_us) < shortest_us) {
        return usage_failure("--stalled and --behind must be at least 4 times --interval", "watchdog");
    }
    return std::nullopt;
}

// Parses the line again with the file's options first, so that the watchdog's options on the line take
// precedence. A global option with a value, such as --socket, is refused if it is in both places.
std::optional<Failure> parse_with_file(const std::vector<std::string>& words, CommandLine& line) {
    const std::string path = line.watchdog.config_path;
    const auto publish_from = line.watchdog.limits.publish_from;
    std::vector<std::string> file_words;
    if (std::optional<Failure> failure = read_config(path, file_words)) {
        return failure;
    }
    std::vector<std::string> all = words;
    const std::size_t command_idx = skip_options(words, 0);
    all.insert(all.begin() + static_cast<std::ptrdiff_t>(command_idx) + 1, file_words.begin(),
               file_words.end());
    line = CommandLine();
    std::optional<Failure> failure = CommandParser(line).parse(all);
    if (failure) {
        failure->message = "in " + escape_untrusted(path) + ": " + failure->message;
    }
    // A list option would collect the values from both; those on the command line must replace those in
    // the file.
    if (!publish_from.empty()) {
        line.watchdog.limits.publish_from = publish_from;
    }
    return failure;
}

}  // namespace

SplitWords split_raw_words(const std::vector<std::string>& words) {
    SplitWords split;
    const std::size_t raw_idx = skip_options(words, 0);
    if (raw_idx == words.size() || words[raw_idx] != "raw") {
        split.own = words;
        return split;
    }
    std::size_t idx = skip_options(words, raw_idx + 1);
    const auto at = [&words](std::size_t i) { return words.begin() + static_cast<std::ptrdiff_t>(i); };
    split.own.assign(words.begin(), at(idx));
    if (idx < words.size() && words[idx] == "--") {
        ++idx;
    }
    if (idx < words.size()) {
        split.has_request = true;
        split.request.command = words[idx];
        split.request.arguments.assign(at(idx + 1), words.end());
    }
    return split;
}

int failure_status(const std::vector<std::string>& words, ExitCode exit_code) {
    const std::size_t command_idx = skip_options(words, 0);
    const bool is_check = command_idx < words.size() && words[command_idx] == "check";
    return is_check ? static_cast<int>(Level::UNKNOWN) : static_cast<int>(exit_code);
}

std::optional<Failure> parse_command_line(const std::vector<std::string>& words, CommandLine& command_line) {
    SplitWords split = split_raw_words(words);
    CommandParser parser(command_line);
    if (std::optional<Failure> failure = parser.parse(split.own)) {
        return failure;
    }
    if (parser.help_asked) {
        // After parsing, a parser gives help only for what it parsed, so use a new one.
        CommandLine unread;
        return CommandParser(unread).find_help(parser.help_topic, command_line.help_text);
    }
    if (!command_line.watchdog.config_path.empty()) {
        if (std::optional<Failure> failure = parse_with_file(split.own, command_line)) {
            return failure;
        }
    }
    command_line.raw.request = std::move(split.request);
    return check_combinations(command_line, split.has_request);
}
