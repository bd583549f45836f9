// An option file. Each line is "name = value". The names are those of the command line's options, without the
// leading dashes. Lines that begin with '#' or ';' are comments.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/failure.h"

// Reads the file as command-line words, one "--name=value" for each value.
[[nodiscard]] std::optional<Failure> read_config(const std::string& path, std::vector<std::string>& words);
