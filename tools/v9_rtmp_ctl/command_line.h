// The command line: its grammar and the parsed result.
//
// Global options may precede or follow the subcommand. Everything after the COMMAND of raw is passed to the
// server unchanged, so the tool's options end there. A COMMAND that begins with '-' must be preceded by "--".
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/failure.h"

enum class Subcommand {
    NONE,  // only text to print
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
    std::string shell;      // for completion
    std::string help_text;  // for NONE: printed on standard output
};

// words is the command line after the program's name. Reads the file named by --config. Every failure
// is ExitCode::USAGE.
[[nodiscard]] std::optional<Failure> parse_command_line(const std::vector<std::string>& words,
                                                        CommandLine& command_line);

// Returns the exit status when the tool itself fails with exit_code. For check this is 3 (UNKNOWN).
[[nodiscard]] int failure_status(const std::vector<std::string>& words, ExitCode exit_code);

// The words of a raw command, split into those for the tool and the request after them.
struct SplitWords {
    std::vector<std::string> own;  // all words unless the subcommand is raw
    bool has_request = false;
    Request request;
};

[[nodiscard]] SplitWords split_raw_words(const std::vector<std::string>& words);
