// The options of each subcommand and the functions that run them.
//
// Every run_ function prints its result on standard output, reports its own failures, and returns the
// exit code.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/selection.h"
#include "tools/v9_rtmp_ctl/text.h"
#include "tools/v9_rtmp_ctl/watchdog_rules.h"
#include "tools/v9_rtmp_ctl/watchdog_statistics.h"

enum class OutputForm { PEOPLE, PLAIN, JSON };

// The global options.
struct Settings {
    std::string socket_path = DEFAULT_SOCKET_PATH;
    double timeout_seconds = 5;
    OutputForm form = OutputForm::PEOPLE;
    bool no_color = false;
    RateUnit unit = RateUnit::BYTES;
    bool quiet = false;  // only failures are reported

    [[nodiscard]] std::uint64_t timeout_us() const {
        return static_cast<std::uint64_t>(timeout_seconds * 1e6);
    }
};

struct ListOptions {
    Selection selection;
    SortKey sort = SortKey::ID;
    bool reverse = false;
    bool no_legend = false;
};

struct StreamsOptions {
    std::vector<std::string> names;  // names or patterns; empty: all
    SortKey sort = SortKey::STREAM;
    bool reverse = false;
    bool no_legend = false;
};

struct DropOptions {
    std::vector<std::string> ids;                // for drop id
    std::optional<std::string> expected_stream;  // for drop id
    bool no_list = false;                        // for drop id
    Selection selection;
    bool dry_run = false;
    bool force = false;
};

struct WatchOptions {
    double interval_seconds = 1;
    Selection selection;
};

struct MetricsOptions {
    std::string file;                        // empty: standard output
    std::optional<double> interval_seconds;  // empty: once
    std::string watchdog_state = DEFAULT_WATCHDOG_STATE;
};

struct ServeOptions {
    std::string listen = "127.0.0.1:9935";
    std::vector<std::string> host_names;
    bool allow_drop = false;
    std::string token_file;
    std::string watchdog_state = DEFAULT_WATCHDOG_STATE;
};

struct WatchdogOptions {
    WatchdogLimits limits;
    double interval_seconds = 1;
    double settle_seconds = 5;  // from a client's choice of a stream until it is compared with others
    bool dry_run = false;
    std::string state_directory = DEFAULT_WATCHDOG_STATE;
    std::string config_path;  // file with more options; empty: none
};

struct EventsOptions {
    double interval_seconds = 0.5;
    std::string program;  // run for each event; empty: none
};

struct CheckOptions {
    std::string rtmp = "127.0.0.1:1935";  // HOST:PORT
    bool publish_test = false;
};

struct RawOptions {
    bool async = false;
    Request request;
};

ExitCode run_hello(const Settings& settings);
ExitCode run_list(const Settings& settings, const ListOptions& options);
ExitCode run_streams(const Settings& settings, const StreamsOptions& options);
ExitCode run_drop_id(const Settings& settings, const DropOptions& options);
ExitCode run_drop_stream(const Settings& settings, const DropOptions& options);
ExitCode run_drop_address(const Settings& settings, const DropOptions& options);
ExitCode run_drop_unnamed(const Settings& settings, const DropOptions& options);
ExitCode run_watch(const Settings& settings, const WatchOptions& options);
ExitCode run_metrics(const Settings& settings, const MetricsOptions& options);
ExitCode run_watchdog(const Settings& settings, const WatchdogOptions& options);
ExitCode run_events(const Settings& settings, const EventsOptions& options);
ExitCode run_check(const Settings& settings, const CheckOptions& options);
ExitCode run_raw(const Settings& settings, const RawOptions& options);
ExitCode run_completion(const std::string& shell);
ExitCode run_version(const Settings& settings);

// Replaces this process with the serve program, which has its own package, and passes it the words of the
// command line. Returns only if that program cannot be started.
ExitCode become_serve(const std::vector<std::string>& words);
// In the serve program: serves until a signal ends the process.
ExitCode run_serve(const Settings& settings, const ServeOptions& options);
