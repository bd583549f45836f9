// The files in completions/, compiled in, so the tool can print them wherever it is installed.
#pragma once

#include <string_view>

extern const std::string_view BASH_COMPLETION;
extern const std::string_view ZSH_COMPLETION;
extern const std::string_view FISH_COMPLETION;
