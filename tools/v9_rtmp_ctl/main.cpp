#include <fcntl.h>
#include <unistd.h>

#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/command_line.h"
#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/failure.h"

namespace {

// Opens /dev/null on each standard descriptor that is closed. Otherwise the control socket could become
// standard output, and the server would receive the user's output.
void open_closed_standard_descriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) < 0) {
            // open() returns the lowest free descriptor, which is this one: those below it are open by now.
            static_cast<void>(open("/dev/null", O_RDWR));
        }
    }
}

ExitCode run(const CommandLine& line, const std::vector<std::string>& words) {
    switch (line.subcommand) {
        case Subcommand::NONE:
            std::cout << line.help_text;
            return ExitCode::DONE;
        case Subcommand::HELLO:
            return run_hello(line.settings);
        case Subcommand::LIST:
            return run_list(line.settings, line.list);
        case Subcommand::STREAMS:
            return run_streams(line.settings, line.streams);
        case Subcommand::DROP_ID:
            return run_drop_id(line.settings, line.drop);
        case Subcommand::DROP_STREAM:
            return run_drop_stream(line.settings, line.drop);
        case Subcommand::DROP_ADDRESS:
            return run_drop_address(line.settings, line.drop);
        case Subcommand::DROP_UNNAMED:
            return run_drop_unnamed(line.settings, line.drop);
        case Subcommand::WATCH:
            return run_watch(line.settings, line.watch);
        case Subcommand::METRICS:
            return run_metrics(line.settings, line.metrics);
        case Subcommand::SERVE:
            return become_serve(words);
        case Subcommand::WATCHDOG:
            return run_watchdog(line.settings, line.watchdog);
        case Subcommand::EVENTS:
            return run_events(line.settings, line.events);
        case Subcommand::CHECK:
            return run_check(line.settings, line.check);
        case Subcommand::RAW:
            return run_raw(line.settings, line.raw);
        case Subcommand::COMPLETION:
            return run_completion(line.shell);
        case Subcommand::VERSION:
            return run_version(line.settings);
    }
    return ExitCode::USAGE;
}

int parse_and_run(const std::vector<std::string>& words) {
    CommandLine line;
    if (const std::optional<Failure> failure = parse_command_line(words, line)) {
        return failure_status(words, report(*failure));
    }
    const ExitCode exit_code = run(line, words);
    if (!std::cout.flush()) {
        return failure_status(
            words,
            report(
                {ExitCode::NEGATIVE_ANSWER,
                 "the output could not be written. Check the file or pipe that standard output goes to."}));
    }
    return static_cast<int>(exit_code);
}

}  // namespace

int main(int argc, char** argv) {
    open_closed_standard_descriptors();
    std::vector<std::string> words;
    try {
        words.assign(argv + (argc > 0 ? 1 : 0), argv + argc);
        return parse_and_run(words);
    } catch (const std::exception& error) {
        return failure_status(words, report(gave_up(error)));
    }
}
