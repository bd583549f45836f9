#include "tests/support/program_process.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "tests/support/test_failure.h"

namespace {

constexpr int CANNOT_START = 127;

// Returns NAME= of a NAME=value entry.
std::string_view name_of(std::string_view entry) {
    return entry.substr(0, entry.find('=') + 1);
}

}  // namespace

std::vector<std::string> environment_with(const std::vector<std::string>& entries) {
    std::vector<std::string> result = entries;
    for (char** own = environ; *own != nullptr; ++own) {
        const std::string_view name = name_of(*own);
        if (std::none_of(entries.begin(), entries.end(),
                         [name](const std::string& entry) { return name_of(entry) == name; })) {
            result.emplace_back(*own);
        }
    }
    return result;
}

std::vector<char*> exec_pointers(std::vector<std::string>& strings) {
    std::vector<char*> result;
    result.reserve(strings.size() + 1);
    for (std::string& string : strings) {
        result.push_back(string.data());
    }
    result.push_back(nullptr);
    return result;
}

void become_program(pid_t parent, bool obeys_file_modes, char* const* argv, char* const* envp) {
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) {
        _exit(CANNOT_START);
    }
    // exec does not restore to root what is dropped from the bounding set.
    if (obeys_file_modes && (prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0) != 0 ||
                             prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH, 0, 0, 0) != 0)) {
        _exit(CANNOT_START);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        (void)signal(number, SIG_DFL);
    }
    execvpe(argv[0], argv, envp);
    _exit(CANNOT_START);
}

ProgramEnd wait_for_child(pid_t child, Milliseconds wait) {
    int status = 0;
    if (!holds_within(wait, [&] { return checked(waitpid(child, &status, WNOHANG), "waitpid") == child; })) {
        throw TestFailure("the program did not end");
    }
    return WIFEXITED(status) ? ProgramEnd{WEXITSTATUS(status), 0} : ProgramEnd{-1, WTERMSIG(status)};
}

ProgramProcess::ProgramProcess(std::vector<std::string> command, const ProgramOptions& options) {
    std::vector<std::string> environment = environment_with(options.environment);
    const std::vector<char*> argv = exec_pointers(command);
    const std::vector<char*> envp = exec_pointers(environment);
    std::array<int, 2> out{};
    std::array<int, 2> err{};
    checked(pipe2(out.data(), O_CLOEXEC), "pipe2");
    checked(pipe2(err.data(), O_CLOEXEC), "pipe2");
    const int nothing = checked(open("/dev/null", O_RDONLY | O_CLOEXEC), "opening /dev/null");
    const pid_t parent = getpid();
    child = checked(fork(), "fork");
    if (child == 0) {
        if (dup2(nothing, STDIN_FILENO) < 0 || dup2(out[1], STDOUT_FILENO) < 0 ||
            dup2(err[1], STDERR_FILENO) < 0) {
            _exit(CANNOT_START);
        }
        become_program(parent, options.obeys_file_modes, argv.data(), envp.data());
    }
    for (const int fd : {nothing, out[1], err[1]}) {
        close(fd);
    }
    out_fd = out[0];
    err_fd = err[0];
    pump_thread = std::thread([this] { pump(); });
}

ProgramProcess::~ProgramProcess() {
    if (child > 0) {
        (void)kill(child, SIGKILL);
        (void)waitpid(child, nullptr, 0);
    }
    pump_thread.join();
    close(out_fd);
    close(err_fd);
}

void ProgramProcess::send_signal(int signal_number) const {
    checked(kill(child, signal_number), "kill");
}

ProgramEnd ProgramProcess::wait_for_exit(Milliseconds wait) {
    const ProgramEnd end = wait_for_child(child, wait);
    child = -1;
    captured_out.wait_for_end(wait);
    captured_err.wait_for_end(wait);
    return end;
}

void ProgramProcess::pump() const {
    std::array<pollfd, 2> fds{{{out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}}};
    const std::array<CapturedOutput*, 2> captures{&captured_out, &captured_err};
    while (fds[0].fd >= 0 || fds[1].fd >= 0) {
        if (poll(fds.data(), fds.size(), -1) < 0) {
            continue;
        }
        for (std::size_t i = 0; i < fds.size(); ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) {
                continue;
            }
            std::array<char, 65536> chunk{};
            const ssize_t count = read(fds[i].fd, chunk.data(), chunk.size());
            if (count > 0) {
                captures[i]->append({chunk.data(), static_cast<std::size_t>(count)});
            } else if (count == 0 || errno != EINTR) {
                fds[i].fd = -1;
                captures[i]->set_ended();
            }
        }
    }
}

ProgramRun run_program(std::vector<std::string> command, const ProgramOptions& options, Milliseconds wait) {
    const TimePoint start = SteadyClock::now();
    ProgramProcess program(std::move(command), options);
    ProgramRun run;
    run.end = program.wait_for_exit(wait);
    run.took = elapsed_since(start);
    run.out = program.out().raw_text();
    run.err = program.err().raw_text();
    return run;
}
