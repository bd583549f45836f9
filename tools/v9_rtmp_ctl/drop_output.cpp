#include "tools/v9_rtmp_ctl/drop_output.h"

#include <unistd.h>

#include <iostream>

#include "tools/v9_rtmp_ctl/output.h"
#include "tools/v9_rtmp_ctl/table.h"
#include "tools/v9_rtmp_ctl/tables.h"

namespace {

bool answered_yes(const std::string& question) {
    std::cout.flush();
    std::cerr << question << " [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "Y" || answer == "yes";
}

}  // namespace

std::string connections_text(std::size_t count) {
    return std::to_string(count) + (count == 1 ? " connection" : " connections");
}

std::optional<Failure> confirm(const DropOptions& options, const std::string& question) {
    if (options.force) {
        return std::nullopt;
    }
    if (isatty(STDIN_FILENO) == 0 || isatty(STDERR_FILENO) == 0) {
        return Failure{ExitCode::USAGE,
                       "nothing was dropped: standard input or error is not a terminal, so the tool cannot "
                       "ask. Add --force to drop without asking."};
    }
    if (!answered_yes(question)) {
        return Failure{ExitCode::NEGATIVE_ANSWER, "nothing was dropped. Answer y next time, or add --force."};
    }
    return std::nullopt;
}

void print_dry_run(const Settings& settings, const std::vector<const Connection*>& connections) {
    switch (settings.form) {
        case OutputForm::PEOPLE: {
            const OutputStyle style = find_output_style(settings);
            print_lines(
                layout_table(connection_table(connections, {style.width, settings.unit}), style.width, true),
                true, style);
            std::cout << "would drop " << connections_text(connections.size()) << '\n';
            break;
        }
        case OutputForm::PLAIN:
            for (const Connection* connection : connections) {
                std::cout << plain_line(*connection) << '\n';
            }
            break;
        case OutputForm::JSON: {
            DropResult result{connections.size(), true, std::nullopt, std::vector<unsigned>(), {}};
            for (const Connection* connection : connections) {
                result.ids->push_back(connection->id);
            }
            std::cout << drop_json(result) << '\n';
            break;
        }
    }
}

void print_dropped(const Settings& settings, const DropResult& result, const std::string& line) {
    switch (settings.form) {
        case OutputForm::PEOPLE:
            if (!settings.quiet) {
                std::cout << line;
            }
            break;
        case OutputForm::PLAIN:
            std::cout << result.dropped << '\n';
            break;
        case OutputForm::JSON:
            std::cout << drop_json(result) << '\n';
            break;
    }
}
