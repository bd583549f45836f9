#include "tools/v9_rtmp_ctl/hook.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

std::vector<char*> pointers_to_text(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<std::string> environment_with(const std::vector<std::pair<std::string, std::string>>& variables) {
    std::vector<std::string> entries;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        entries.emplace_back(*entry);
    }
    for (const auto& variable : variables) {
        std::string assignment = variable.first + "=";
        std::erase_if(entries,
                      [&assignment](const std::string& entry) { return entry.starts_with(assignment); });
        assignment += variable.second;
        entries.push_back(std::move(assignment));
    }
    return entries;
}

// Returns what posix_spawnp returns.
int spawn(const std::string& program, const std::vector<std::pair<std::string, std::string>>& variables,
          const sigset_t& signal_mask, pid_t& child) {
    std::vector<std::string> words{program};
    std::vector<std::string> environment = environment_with(variables);
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &signal_mask);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
    const int error = posix_spawnp(&child, program.c_str(), &actions, &attributes,
                                   pointers_to_text(words).data(), pointers_to_text(environment).data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return error;
}

// Whether the program ended in time. If not, its process group has been killed.
bool wait_for_end(pid_t child, std::uint64_t max_us) {
    const auto process = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
    pollfd waited{process, POLLIN, 0};
    const bool has_ended = process < 0 || poll(&waited, 1, static_cast<int>(max_us / 1000)) != 0;
    if (process >= 0) {
        close(process);
    }
    if (!has_ended) {
        kill(-child, SIGKILL);
    }
    return has_ended;
}

}  // namespace

std::optional<std::string> run_hook(const std::string& program,
                                    const std::vector<std::pair<std::string, std::string>>& variables,
                                    const sigset_t& signal_mask, std::uint64_t max_us) {
    // A parent may have left it ignored; the child's end could then not be waited for.
    std::signal(SIGCHLD, SIG_DFL);
    pid_t child = -1;
    if (const int error = spawn(program, variables, signal_mask, child)) {
        return std::string("could not be started (") + std::strerror(error) + ")";
    }
    const bool ended_by_itself = wait_for_end(child, max_us);
    int status = 0;
    if (waitpid(child, &status, 0) != child) {
        return "could not be waited for";
    }
    if (!ended_by_itself) {
        return "ran for more than " + std::to_string(max_us / 1000000) + " s and was killed";
    }
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status) == 0
                   ? std::nullopt
                   : std::optional("exited with status " + std::to_string(WEXITSTATUS(status)));
    }
    return "was killed by signal " + std::to_string(WTERMSIG(status));
}
