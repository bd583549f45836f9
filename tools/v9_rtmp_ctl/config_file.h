// An option file. Each line is "name = value", with the option names of the command line without dashes.
// Lines that begin with '#' or ';' are comments.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/failure.h"

// Reads the file as command-line words, one "--name=value" for each value.
[[nodiscard]] std::optional<Failure> read_config(const std::string& path, std::vector<std::string>& words);
