// Explains what is wrong with a command line and what to type instead. Pure. Every failure
// is ExitCode::USAGE.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/v9_rtmp_ctl/failure.h"

// Gives the reason and where to find help. command is, for example, "drop id", or empty for the tool.
[[nodiscard]] Failure usage_failure(const std::string& reason, const std::string& command);

// For no command at all: an overview.
[[nodiscard]] Failure nothing_to_do();

// For "drop" alone.
[[nodiscard]] Failure nothing_to_drop();

// parent is "drop" or empty.
[[nodiscard]] Failure unknown_command(const std::string& parent, const std::string& word,
                                      const std::vector<std::string>& known);
[[nodiscard]] Failure unknown_option(const std::string& command, const std::string& word,
                                     const std::vector<std::string>& known);
[[nodiscard]] Failure too_many_words(const std::string& command, const std::vector<std::string>& words);

// Returns the known word most likely meant; empty if none is close.
[[nodiscard]] std::string find_nearest(std::string_view word, const std::vector<std::string>& known);
