// The command line: what may be said, and what was. Pure.
//
// Global options stand before or behind the subcommand. Of raw, everything behind its COMMAND is passed to
// the server as it is, so options of the tool end there; a COMMAND that begins with '-' has a "--" before it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/failure.h"

enum class Subcommand {
    NONE,  // only something to print was asked for
    HELLO,
    LIST,
    STREAMS,
    DROP_ID,
    DROP_STREAM,
    DROP_ADDRESS,
    DROP_UNNAMED,
    WATCH,
    METRICS,
    SERVE,
    WATCHDOG,
    EVENTS,
    CHECK,
    RAW,
    COMPLETION,
    VERSION,
};

struct CommandLine {
    Subcommand subcommand = Subcommand::NONE;
    Settings settings;
    ListOptions list;
    StreamsOptions streams;
    DropOptions drop;
    WatchOptions watch;
    MetricsOptions metrics;
    ServeOptions serve;
    WatchdogOptions watchdog;
    EventsOptions events;
    CheckOptions check;
    RawOptions raw;
    std::string shell;      // of completion
    std::string help_text;  // to be printed on standard output; of NONE
};

// words is the command line behind the program's name. Reads the file that --config names. A failure
// is ExitCode::USAGE.
[[nodiscard]] std::optional<Failure> parse_command_line(const std::vector<std::string>& words,
                                                        CommandLine& command_line);

// The exit status when the tool fails with exit_code, whatever the command found: of check 3, its UNKNOWN.
[[nodiscard]] int failure_status(const std::vector<std::string>& words, ExitCode exit_code);

// The part of the words of a raw command that is the tool's, and the request behind it.
struct SplitWords {
    std::vector<std::string> own;  // all words when the subcommand is not raw
    bool has_request = false;
    Request request;
};

[[nodiscard]] SplitWords split_raw_words(const std::vector<std::string>& words);
