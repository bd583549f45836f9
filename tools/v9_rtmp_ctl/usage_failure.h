// What is wrong with a command line, and what to type instead. Pure. Every failure here is ExitCode::USAGE.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/v9_rtmp_ctl/failure.h"

// The reason, and where help about the command is. command: "drop id", or empty for the tool.
[[nodiscard]] Failure usage_failure(const std::string& reason, const std::string& command);

// No command at all: an overview.
[[nodiscard]] Failure nothing_to_do();

// "drop" alone.
[[nodiscard]] Failure nothing_to_drop();

// parent: "drop", or empty.
[[nodiscard]] Failure unknown_command(const std::string& parent, const std::string& word,
                                      const std::vector<std::string>& known);
[[nodiscard]] Failure unknown_option(const std::string& command, const std::string& word,
                                     const std::vector<std::string>& known);
[[nodiscard]] Failure too_many_words(const std::string& command, const std::vector<std::string>& words);

// The known word that is most likely meant; empty when none is near.
[[nodiscard]] std::string find_nearest(std::string_view word, const std::vector<std::string>& known);
