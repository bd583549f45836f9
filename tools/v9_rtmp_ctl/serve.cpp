#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/text.h"

ExitCode become_serve(const std::vector<std::string>& words) {
    std::error_code error;
    const std::filesystem::path own = std::filesystem::read_symlink("/proc/self/exe", error);
    const std::string program = own.parent_path() / "v9_rtmp_ctl-serve";
    std::vector<std::string> copies{program};
    copies.insert(copies.end(), words.begin(), words.end());
    std::vector<char*> arguments;
    arguments.reserve(copies.size() + 1);
    for (std::string& copy : copies) {
        arguments.push_back(copy.data());
    }
    arguments.push_back(nullptr);
    execv(program.c_str(), arguments.data());
    return report({ExitCode::NEGATIVE_ANSWER, escape_untrusted(program) + " cannot be started (" +
                                                  std::strerror(errno) +
                                                  "). It is in a separate package: install that, or build "
                                                  "v9_rtmp_ctl-serve in the directory of this program."});
}
