#include <iostream>
#include <string>
#include <string_view>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/completion_scripts.h"
#include "tools/v9_rtmp_ctl/failure.h"

ExitCode run_completion(const std::string& shell) {
    if (shell == "bash") {
        std::cout << BASH_COMPLETION;
    } else if (shell == "zsh") {
        std::cout << ZSH_COMPLETION;
    } else if (shell == "fish") {
        std::cout << FISH_COMPLETION;
    } else {
        return report({ExitCode::USAGE, "there is no completion for that shell. Ask for bash, zsh or fish."});
    }
    return ExitCode::DONE;
}
