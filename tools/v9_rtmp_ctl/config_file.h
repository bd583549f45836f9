// A file of options: one a line, "name = value", as on the command line but without its dashes. Lines that
// begin with '#' or ';' are comments.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/failure.h"

// Reads the file as words of a command line: "--name=value", again for each further value.
[[nodiscard]] std::optional<Failure> read_config(const std::string& path, std::vector<std::string>& words);
