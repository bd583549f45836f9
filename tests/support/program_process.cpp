#include "tests/support/program_process.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <linux/close_range.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "tests/support/test_failure.h"

namespace {

constexpr int CANNOT_START = 127;

// Returns the environment of this process, with these entries overriding its own.
std::vector<std::string> environment_with(const std::vector<std::string>& entries) {
    const auto name_of = [](std::string_view entry) { return entry.substr(0, entry.find('=') + 1); };
    std::vector<std::string> result = entries;
    for (char** own = environ; *own != nullptr; ++own) {
        if (std::ranges::find(entries, name_of(*own), name_of) == entries.end()) {
            result.emplace_back(*own);
        }
    }
    return result;
}

// Returns pointers to the strings, followed by a null, as exec needs them.
std::vector<char*> exec_pointers(std::vector<std::string>& strings) {
    std::vector<char*> result(strings.size() + 1);
    std::ranges::transform(strings, result.begin(), [](std::string& string) { return string.data(); });
    return result;
}

void require(bool done) {
    if (!done) {
        _exit(CANNOT_START);
    }
}

// Runs between fork and exec, so it makes system calls only.
[[noreturn]] void become_program(pid_t parent, const ProgramOptions& options, char* const* argv,
                                 char* const* envp) {
    require(prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == parent);
    // exec does not restore to root what is dropped from the bounding set.
    if (options.obeys_file_modes) {
        require(prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0) == 0 &&
                prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH, 0, 0, 0) == 0);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        (void)signal(number, SIG_DFL);
    }
    for (const auto& [resource, limit] : options.limits) {
        const rlimit both{limit, limit};
        require(setrlimit(static_cast<__rlimit_resource>(resource), &both) == 0);
    }
    for (const int fd : options.closed_descriptors) {
        close(fd);
    }
    // The program must not inherit descriptors that the test's parent left open.
    require(close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) == 0);
    execvpe(argv[0], argv, envp);
    _exit(CANNOT_START);
}

void replace_by_file(int fd, const std::string& path) {
    const int file =
        checked(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644), path.c_str());
    checked(dup3(file, fd, O_CLOEXEC), "dup3");
    close(file);
}

}  // namespace

std::string ProgramEnd::text() const {
    return "status " + std::to_string(status) + ", signal " + std::to_string(signal);
}

void ChildProcess::start(std::vector<std::string> command, const ProgramOptions& options,
                         const std::function<bool()>& take_streams) {
    std::vector<std::string> environment = environment_with(options.environment);
    const std::vector<char*> argv = exec_pointers(command);
    const std::vector<char*> envp = exec_pointers(environment);
    const pid_t parent = getpid();
    child = checked(fork(), "fork");
    if (child == 0) {
        require(take_streams());
        become_program(parent, options, argv.data(), envp.data());
    }
}

ChildProcess::~ChildProcess() {
    if (child > 0 && is_running()) {
        (void)kill(child, SIGKILL);
        (void)waitpid(child, nullptr, 0);
    }
}

bool ChildProcess::is_running() {
    int status = 0;
    if (!ending && checked(waitpid(child, &status, WNOHANG), "waitpid") == child) {
        ending = WIFEXITED(status) ? ProgramEnd{WEXITSTATUS(status), 0} : ProgramEnd{-1, WTERMSIG(status)};
    }
    return !ending;
}

void ChildProcess::send_signal(int signal_number) {
    if (!is_running()) {
        throw TestFailure("the program ended by itself, " + ending->text());
    }
    checked(kill(child, signal_number), "kill");
}

void ChildProcess::wait_until_stopped(Milliseconds wait) const {
    // The kernel reports this once every thread has stopped.
    const auto has_stopped = [&] {
        siginfo_t info{};
        checked(waitid(P_PID, static_cast<id_t>(child), &info, WSTOPPED | WNOHANG), "waitid");
        return info.si_pid == child;
    };
    if (!holds_within(wait, has_stopped)) {
        throw TestFailure("the program did not stop");
    }
}

ProgramEnd ChildProcess::wait_until_ended(Milliseconds wait) {
    if (!holds_within(wait, [this] { return !is_running(); })) {
        throw TestFailure("the program did not end");
    }
    return *ending;
}

ProgramProcess::ProgramProcess(std::vector<std::string> command, const ProgramOptions& options) {
    if (options.stderr_pipe_bytes > 0) {
        checked(fcntl(err_pipe.write_end(), F_SETPIPE_SZ, options.stderr_pipe_bytes), "F_SETPIPE_SZ");
    }
    if (!options.stderr_file.empty()) {
        replace_by_file(err_pipe.write_end(), options.stderr_file);
    }
    const int nothing = checked(memfd_create("empty", MFD_CLOEXEC), "memfd_create");
    start(std::move(command), options, [&] {
        return dup2(nothing, STDIN_FILENO) >= 0 && dup2(out_pipe.write_end(), STDOUT_FILENO) >= 0 &&
               dup2(err_pipe.write_end(), STDERR_FILENO) >= 0;
    });
    close(nothing);
    out_pipe.close_write_end();
    err_pipe.close_write_end();
}

ProgramEnd ProgramProcess::wait_for_exit(Milliseconds wait) {
    const ProgramEnd end = wait_until_ended(wait);
    out().wait_for_end(wait);
    err().wait_for_end(wait);
    return end;
}

ProgramRun run_program(std::vector<std::string> command, const ProgramOptions& options, Milliseconds wait) {
    const TimePoint start = SteadyClock::now();
    ProgramProcess program(std::move(command), options);
    const ProgramEnd end = program.wait_for_exit(wait);
    return {end, program.out().raw_text(), program.err().raw_text(), elapsed_since(start)};
}
