#include "tools/v9_rtmp_ctl/config_file.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <sstream>

#include "tools/v9_rtmp_ctl/state_file.h"
#include "tools/v9_rtmp_ctl/text.h"
#include "tools/v9_rtmp_ctl/usage_failure.h"

namespace {

Failure bad_file(const std::string& path, const std::string& what) {
    return {ExitCode::USAGE,
            "in " + escape_untrusted(path) + ": " + escape_untrusted(what) +
                ". Write one option per line, without leading dashes, such as: stalled = 30"};
}

}  // namespace

std::optional<Failure> read_config(const std::string& path, std::vector<std::string>& words) {
    const std::optional<std::string> text = read_file(path);
    if (!text) {
        return usage_failure("the options in " + path + " cannot be read (" + std::strerror(errno) + ")",
                             "watchdog");
    }
    std::istringstream stream(*text);
    std::vector<CLI::ConfigItem> items;
    try {
        items = CLI::ConfigBase().from_config(stream);
    } catch (const CLI::Error& error) {
        return bad_file(path, error.what());
    }
    for (const CLI::ConfigItem& item : items) {
        if (!item.parents.empty() || item.name.starts_with('-') || item.inputs.empty()) {
            return bad_file(path, "'" + item.fullname() + "' is not the name of an option");
        }
        for (const std::string& input : item.inputs) {
            if (input.empty()) {
                return bad_file(path, "'" + item.name + "' has no value");
            }
            words.push_back("--" + item.name + "=" + input);
        }
    }
    return std::nullopt;
}
