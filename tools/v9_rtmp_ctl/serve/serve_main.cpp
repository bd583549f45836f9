// The program that v9_rtmp_ctl becomes for serve. Only it needs the HTTP library.
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/command_line.h"
#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/failure.h"

int main(int argc, char** argv) {
    try {
        CommandLine line;
        const std::vector<std::string> words(argv + (argc > 0 ? 1 : 0), argv + argc);
        if (const std::optional<Failure> failure = parse_command_line(words, line)) {
            return static_cast<int>(report(*failure));
        }
        if (line.subcommand != Subcommand::SERVE) {
            return static_cast<int>(
                report({ExitCode::USAGE, "this program only serves. Start it as 'v9_rtmp_ctl serve'."}));
        }
        return static_cast<int>(run_serve(line.settings, line.serve));
    } catch (const std::exception& error) {
        return static_cast<int>(report(gave_up(error)));
    }
}
