#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/connection_history.h"
#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/drop_batch.h"
#include "tools/v9_rtmp_ctl/drop_rules.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/state_file.h"
#include "tools/v9_rtmp_ctl/stop_signals.h"
#include "tools/v9_rtmp_ctl/text.h"
#include "tools/v9_rtmp_ctl/trouble.h"
#include "tools/v9_rtmp_ctl/watchdog_log.h"
#include "tools/v9_rtmp_ctl/watchdog_rules.h"
#include "tools/v9_rtmp_ctl/watchdog_statistics.h"

namespace {

// Interval for saving the state while nothing happens.
constexpr std::uint64_t SAVE_EVERY_US = 10000000;
// The server takes half a second to read a name of a megabyte. Other drops must not wait for many such names.
constexpr std::ptrdiff_t LONG_NAMES_PER_POLL = 4;
constexpr mode_t DIRECTORY_MODE = 0755;

std::uint64_t microseconds(double seconds) {
    return static_cast<std::uint64_t>(seconds * 1e6);
}

// The state that outlives a watchdog: first-seen times and counters. Only one watchdog writes to it.
class StateDirectory {
  public:
    explicit StateDirectory(std::string directory) : path(std::move(directory)) {}

    [[nodiscard]] std::optional<Failure> lock_for_writing() {
        static_cast<void>(mkdir(path.c_str(), DIRECTORY_MODE));
        lock.emplace(file("lock"));
        if (lock->is_held_elsewhere()) {
            return Failure{
                ExitCode::USAGE,
                "another watchdog keeps its state in " + escape_untrusted(path) +
                    ". Stop it, or name another directory with --state; --dry-run can run alongside it."};
        }
        return std::nullopt;
    }

    void load(ConnectionHistory& history, WatchdogStatistics& statistics) const {
        if (const std::optional<std::string> text = read_file(file(WATCHDOG_HISTORY_FILE))) {
            if (!history.restore(*text, boot)) {
                warn(file(WATCHDOG_HISTORY_FILE) +
                     " is not a history and was not used: all clients count as new.");
            }
        }
        if (const std::optional<std::string> text = read_file(file(WATCHDOG_STATISTICS_FILE))) {
            if (const std::optional<WatchdogStatistics> earlier = parse_statistics(*text)) {
                continue_counting(*earlier, statistics);
            }
        }
    }

    void save(const ConnectionHistory& history, const WatchdogStatistics& statistics) {
        const bool done = replace_file(file(WATCHDOG_HISTORY_FILE), history.to_json(boot) + "\n") &&
                          replace_file(file(WATCHDOG_STATISTICS_FILE), statistics_json(statistics) + "\n");
        if (!done && !has_failed) {
            warn("the state cannot be saved in " + path + " (" + std::strerror(errno) +
                 "), so first-seen times will be lost when this watchdog ends. Name a writable directory "
                 "with --state.");
        }
        has_failed = !done;
    }

  private:
    [[nodiscard]] std::string file(const char* name) const { return path + "/" + name; }
    static void warn(const std::string& text) {
        static_cast<void>(report({ExitCode::DONE, "warning: " + escape_untrusted(text)}));
    }

    const std::string path;
    const std::string boot = boot_id();
    std::optional<FileLock> lock;
    bool has_failed = false;
};

class Watchdog {
  public:
    Watchdog(const Settings& all_settings, const WatchdogOptions& all_options)
        : settings(all_settings),
          options(all_options),
          client(all_settings.socket_path, all_settings.timeout_us()),
          history(history_times(all_options.limits, microseconds(all_options.settle_seconds),
                                microseconds(all_options.interval_seconds))),
          statistics(make_statistics(all_options.limits)),
          state(all_options.state_directory),
          trouble(all_settings.quiet) {}

    // A dry run saves nothing, so it can run alongside the service's watchdog.
    [[nodiscard]] std::optional<Failure> start() {
        if (!options.dry_run) {
            if (std::optional<Failure> failure = state.lock_for_writing()) {
                return failure;
            }
        }
        state.load(history, statistics);
        return std::nullopt;
    }

    // Takes one listing and makes the drops it calls for. Returns a failure if further polls are pointless.
    [[nodiscard]] std::optional<Failure> poll() {
        Listing listing;
        if (std::optional<Failure> failure = take_listing(client, "", listing, longest_name_bytes())) {
            ++statistics.failed_looks;
            if (failure->exit_code == ExitCode::USAGE) {
                return failure;
            }
            trouble.tell(*failure);
            save_when_due();
            return std::nullopt;
        }
        ++statistics.looks;
        trouble.tell_end();
        const std::vector<std::uint64_t> before = first_seen_times();
        history.take_in(listing);
        tell_unanswered();
        act(judge(history, options.limits, age_drops));
        if (has_news || before != first_seen_times()) {
            save();
        }
        save_when_due();
        return std::nullopt;
    }

    // Saves at intervals, even while the server does not answer: the age of the file shows whether the
    // watchdog runs.
    void save_when_due() {
        if (clock_us() - saved_us >= SAVE_EVERY_US) {
            save();
        }
    }

    void save() {
        saved_us = clock_us();
        has_news = false;
        if (options.dry_run) {
            return;
        }
        statistics.updated_unix_seconds = std::time(nullptr);
        state.save(history, statistics);
    }

    // Saves for the last time. A signal ended the watchdog, so no alert should follow.
    void stop() {
        statistics.running = false;
        save();
    }

  private:
    [[nodiscard]] std::vector<std::uint64_t> first_seen_times() const {
        std::vector<std::uint64_t> times;
        for (const ClientRecord& record : history.clients()) {
            times.push_back(record.connection.id);
            times.push_back(record.first_seen_us);
            times.push_back(record.stream_seen_us);
            times.push_back(record.settled_as);
        }
        return times;
    }

    void act(const std::vector<Verdict>& verdicts) {
        forget_age_drops(age_drops, history.now_us(), options.limits.stagger_us);
        if (options.dry_run) {
            announce(verdicts);
        } else if (!verdicts.empty()) {
            drop(verdicts);
        }
    }

    // In a dry run the client stays and is judged again at each poll, so it is reported once for each rule.
    void announce(const std::vector<Verdict>& verdicts) {
        std::vector<std::pair<Connection, DropRule>> now;
        for (const Verdict& verdict : verdicts) {
            const bool is_known =
                std::any_of(announced.begin(), announced.end(), [&verdict](const auto& entry) {
                    return entry.second == verdict.rule && is_same_client(entry.first, verdict.target);
                });
            if (!is_known) {
                tell({WatchdogAction::WOULD_DROP, verdict, ""});
            }
            now.emplace_back(verdict.target, verdict.rule);
        }
        announced = std::move(now);
    }

    // Longer names are cut: names are untrusted, and the names of one listing can add up to more than should
    // be copied.
    [[nodiscard]] std::size_t longest_name_bytes() const {
        return std::max(ConnectionHistory::MAX_NAME_BYTES, options.limits.long_name_bytes.value_or(0));
    }

    // Clients with long names are dropped first, so that later listings do not contain those names.
    void drop(std::vector<Verdict> verdicts) {
        auto begin_of_whole = std::stable_partition(
            verdicts.begin(), verdicts.end(),
            [](const Verdict& verdict) { return verdict.target.whole_name_bytes != 0; });
        if (begin_of_whole - verdicts.begin() > LONG_NAMES_PER_POLL) {
            begin_of_whole = verdicts.erase(verdicts.begin() + LONG_NAMES_PER_POLL, begin_of_whole);
        }
        std::vector<Connection> cut;
        std::vector<DropTarget> targets;
        for (auto verdict = verdicts.begin(); verdict != verdicts.end(); ++verdict) {
            if (verdict < begin_of_whole) {
                cut.push_back(verdict->target);
            } else {
                targets.push_back(target_of(verdict->target));
            }
        }
        std::vector<DropOutcome> outcomes;
        std::optional<Failure> failure = cut.empty() ? std::nullopt : drop_cut_names(client, cut, outcomes);
        if (!failure) {
            failure = drop_targets(client, targets, outcomes);
        }
        for (std::size_t i = 0; i < outcomes.size(); ++i) {
            tell(event_of(verdicts[i], outcomes[i]));
        }
        if (failure) {
            trouble.tell(*failure);
            unanswered.assign(verdicts.begin() + static_cast<std::ptrdiff_t>(outcomes.size()),
                              verdicts.end());
        }
    }

    // The server may have carried out drops although no reply came. Reports clients that have gone since; the
    // others are judged again.
    void tell_unanswered() {
        for (const Verdict& verdict : std::exchange(unanswered, {})) {
            const bool has_gone = std::none_of(history.clients().begin(), history.clients().end(),
                                               [&verdict](const ClientRecord& record) {
                                                   return is_same_client(record.connection, verdict.target);
                                               });
            if (has_gone) {
                tell({WatchdogAction::MISSED, verdict, "the drop got no reply, and the client has left"});
            }
        }
    }

    void tell(const WatchdogEvent& event) {
        RuleCounts& counts = statistics.rules[event.verdict.rule];
        has_news = true;
        switch (event.action) {
            case WatchdogAction::DROPPED:
                if (event.verdict.rule == DropRule::AGE) {
                    note_age_drop(age_drops, event.verdict.target.stream, history.now_us(),
                                  options.limits.stagger_us);
                }
                [[fallthrough]];
            case WatchdogAction::WOULD_DROP:
                ++counts.drops;
                break;
            case WatchdogAction::KEPT:
                ++counts.left;
                break;
            case WatchdogAction::MISSED:
                ++counts.misses;
                break;
        }
        if (settings.quiet) {
            return;
        }
        std::cout << (settings.form == OutputForm::JSON ? event_json(event, std::time(nullptr))
                                                        : event_line(event, counts.misses))
                  << std::endl;
    }

    const Settings& settings;
    const WatchdogOptions& options;
    ControlClient client;
    ConnectionHistory history;
    WatchdogStatistics statistics;
    StateDirectory state;
    AgeDrops age_drops;
    std::vector<std::pair<Connection, DropRule>> announced;
    std::vector<Verdict> unanswered;  // unanswered drops of the last poll
    Trouble trouble;
    std::uint64_t saved_us = 0;
    bool has_news = false;  // a drop was attempted since the last save
};

}  // namespace

ExitCode run_watchdog(const Settings& settings, const WatchdogOptions& options) {
    StopSignals stop;
    Watchdog watchdog(settings, options);
    if (const std::optional<Failure> failure = watchdog.start()) {
        return report(*failure);
    }
    const std::uint64_t every_us = microseconds(options.interval_seconds);
    std::uint64_t next_us = clock_us();
    do {
        if (const std::optional<Failure> failure = watchdog.poll()) {
            return report(*failure);
        }
        next_us = std::max(next_us + every_us, clock_us());
        if (!std::cout) {
            watchdog.save();
            return ExitCode::DONE;
        }
    } while (!stop.wait_until(next_us));
    watchdog.stop();
    return ExitCode::DONE;
}
