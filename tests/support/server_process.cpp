#include "tests/support/server_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/close_range.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>

#include "tests/support/program_process.h"
#include "tests/support/test_failure.h"

namespace {

constexpr int CANNOT_START = 127;
constexpr std::size_t SHOWN_LINES = 200;

// AddressSanitizer of GCC 12 reports a false stack overflow in a cancelled thread, because unwinding leaves
// the marks of frames that are gone. It does so when it frees the thread's signal stack, and whenever a
// destructor called by the unwinding leaves a frame. Without signal stacks the first check is not made. With
// frames on a fake stack, which also detects use after return, the marks are not on the real stack.
//
// A preloaded library may precede the sanitizer: the fault injector calls its interceptors.
std::string sanitizer_options() {
    const char* given = std::getenv("ASAN_OPTIONS");
    return std::string("ASAN_OPTIONS=") + (given != nullptr ? std::string(given) + ":" : "") +
           "use_sigaltstack=0:detect_stack_use_after_return=1:verify_asan_link_order=0";
}

struct Pipe {
    Pipe() {
        std::array<int, 2> ends{};
        checked(pipe2(ends.data(), O_CLOEXEC), "pipe2");
        read_end = ends[0];
        write_end = ends[1];
    }
    int read_end;
    int write_end;
};

void replace_by_file(int fd, const std::string& path) {
    const int file =
        checked(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644), path.c_str());
    checked(dup3(file, fd, O_CLOEXEC), "dup3");
    close(file);
}

// Called from a destructor, so no exception may escape; GoogleTest can be configured to throw.
void report_failure(const std::string& text) noexcept {
    try {
        ADD_FAILURE() << text;
    } catch (...) {
        std::cerr << text << '\n';
    }
}

void print_recent_lines(const CapturedOutput& captured) {
    const std::vector<std::string> lines = captured.lines_since();
    std::cerr << "---- the server's standard error (" << lines.size() << " lines)\n";
    for (std::size_t i = lines.size() > SHOWN_LINES ? lines.size() - SHOWN_LINES : 0; i < lines.size(); ++i) {
        std::cerr << lines[i] << '\n';
    }
    std::cerr << "----\n";
}

// Runs between fork and exec, so it makes system calls only.
[[noreturn]] void become_server(const ServerOptions& options, pid_t parent, int out_fd, int err_fd,
                                char* const* argv, char* const* envp) {
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent || dup2(out_fd, STDOUT_FILENO) < 0 ||
        dup2(err_fd, STDERR_FILENO) < 0) {
        _exit(CANNOT_START);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const auto& [resource, limit] : options.limits) {
        const rlimit both{limit, limit};
        if (setrlimit(static_cast<__rlimit_resource>(resource), &both) != 0) {
            _exit(CANNOT_START);
        }
    }
    for (const int fd : options.closed_descriptors) {
        close(fd);
    }
    // The server must not inherit descriptors that the test's parent left open.
    if (close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) != 0) {
        _exit(CANNOT_START);
    }
    execve(argv[0], argv, envp);
    _exit(CANNOT_START);
}

}  // namespace

std::string server_path() {
    if (const char* path = std::getenv("V9_SERVER_PATH")) {
        return path;
    }
#ifdef V9_SERVER_PATH
    return V9_SERVER_PATH;
#else
    throw TestFailure("V9_SERVER_PATH does not say where the server's binary is");
#endif
}

ServerProcess::ServerProcess(const ServerOptions& options) {
    start(options);
}

ServerProcess::ServerProcess(std::vector<std::string> arguments) {
    ServerOptions options;
    options.arguments = std::move(arguments);
    start(options);
}

ServerProcess::~ServerProcess() {
    const bool unwinding = std::uncaught_exceptions() > 0;
    try {
        if (!end_was_expected) {
            stop();
        }
    } catch (const std::exception& failure) {
        report_failure(failure.what());
    }
    end_pump();
    const std::string report = sanitizer_report();
    if (!report.empty()) {
        report_failure("the server printed a report: " + report);
    }
    if (unwinding || testing::Test::HasFailure()) {
        print_recent_lines(captured_err);
    }
    --servers_alive;
    close(err_fd);
    close(out_fd);
    close(wake_fd);
}

void ServerProcess::start(const ServerOptions& options) {
    if (servers_alive > 0 && !options.beside_another) {
        throw TestFailure("another server of this test is still alive");
    }
    std::vector<std::string> argument_strings = {server_path()};
    argument_strings.insert(argument_strings.end(), options.arguments.begin(), options.arguments.end());
    // If two entries have the same name, the first counts.
    std::vector<std::string> environment_strings = options.environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (!std::string_view(*entry).starts_with("ASAN_OPTIONS=")) {
            environment_strings.emplace_back(*entry);
        }
    }
    environment_strings.push_back(sanitizer_options());
    const std::vector<char*> argv = exec_pointers(argument_strings);
    const std::vector<char*> envp = exec_pointers(environment_strings);

    const Pipe out;
    const Pipe err;
    if (options.stderr_pipe_bytes > 0) {
        checked(fcntl(err.write_end, F_SETPIPE_SZ, options.stderr_pipe_bytes), "F_SETPIPE_SZ");
    }
    if (!options.stderr_file.empty()) {
        replace_by_file(err.write_end, options.stderr_file);
    }
    wake_fd = checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd");
    draining_stderr = options.drain_stderr;
    const pid_t parent = getpid();
    child = checked(fork(), "fork");
    if (child == 0) {
        become_server(options, parent, out.write_end, err.write_end, argv.data(), envp.data());
    }
    close(out.write_end);
    close(err.write_end);
    out_fd = out.read_end;
    err_fd = err.read_end;
    pump_thread = std::thread([this] { pump(); });
    ++servers_alive;
    if (options.wait_until_ready) {
        try {
            wait_until_ready();
        } catch (...) {
            kill();
            end_pump();
            --servers_alive;
            throw;
        }
    }
}

void ServerProcess::wait_until_ready() {
    // The handler for SIGQUIT is the last thing the server sets up before its main loop, which begins by
    // sleeping. ThreadSanitizer can lose a signal that arrives before signal() has returned.
    constexpr unsigned long long SIGQUIT_BIT = 1ULL << (SIGQUIT - 1);
    const auto is_ready = [this] {
        if (reap(WNOHANG)) {
            captured_err.wait_for_end();
            throw TestFailure("the server ended at start, status " + std::to_string(end.status) +
                              ", signal " + std::to_string(end.signal) + ":\n" + captured_err.raw_text());
        }
        return (std::stoull(status_field("SigCgt:"), nullptr, 16) & SIGQUIT_BIT) != 0 &&
               status_field("State:").starts_with('S');
    };
    if (!holds_within(DEFAULT_WAIT, is_ready)) {
        throw TestFailure("the server did not get ready:\n" + captured_err.raw_text());
    }
}

bool ServerProcess::reap(int wait_options) {
    if (ended) {
        return true;
    }
    int status = 0;
    const pid_t result = checked(waitpid(child, &status, wait_options), "waitpid");
    if (result != child || WIFSTOPPED(status)) {
        return false;
    }
    ended = true;
    if (WIFEXITED(status)) {
        end.status = WEXITSTATUS(status);
    } else {
        end.signal = WTERMSIG(status);
    }
    return true;
}

bool ServerProcess::wait_until_ended(Milliseconds wait) {
    return holds_within(wait, [this] { return reap(WNOHANG); });
}

std::string ServerProcess::sanitizer_report() const {
    for (const std::string& line : captured_err.lines_since()) {
        for (const char* sign :
             {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "WARNING: ThreadSanitizer",
              "FATAL: ThreadSanitizer", ": runtime error: ", "ERROR: UndefinedBehaviorSanitizer"}) {
            if (line.find(sign) != std::string::npos) {
                return line;
            }
        }
    }
    return {};
}

bool ServerProcess::is_running() {
    return !reap(WNOHANG);
}

void ServerProcess::send_signal(int signal_number) {
    if (reap(WNOHANG)) {
        throw TestFailure("the server has ended before it got signal " + std::to_string(signal_number));
    }
    checked(::kill(child, signal_number), "kill");
}

void ServerProcess::pause() {
    send_signal(SIGSTOP);
    // The kernel reports this once every thread has stopped.
    if (reap(WUNTRACED)) {
        throw TestFailure("the server ended instead of stopping");
    }
    paused = true;
}

void ServerProcess::resume() {
    paused = false;
    send_signal(SIGCONT);
}

Milliseconds ServerProcess::stop(Milliseconds wait) {
    const auto describe = [this] {
        return "status " + std::to_string(end.status) + ", signal " + std::to_string(end.signal);
    };
    end_was_expected = true;
    if (reap(WNOHANG)) {
        throw TestFailure("the server ended by itself, " + describe());
    }
    const TimePoint start_time = SteadyClock::now();
    resume_draining_stderr();
    if (paused) {
        resume();
    }
    checked(::kill(child, SIGTERM), "kill");
    if (!wait_until_ended(wait)) {
        kill();
        throw TestFailure("the server did not end after SIGTERM");
    }
    const Milliseconds took = elapsed_since(start_time);
    if (end.status != 0) {
        throw TestFailure("the server was stopped and ended with " + describe());
    }
    captured_err.wait_for_end(wait);
    return took;
}

ProcessEnd ServerProcess::wait_for_exit(Milliseconds wait) {
    if (!wait_until_ended(wait)) {
        throw TestFailure("the server did not end");
    }
    end_was_expected = true;
    captured_err.wait_for_end(wait);
    captured_out.wait_for_end(wait);
    return end;
}

void ServerProcess::kill() {
    end_was_expected = true;
    if (!reap(WNOHANG)) {
        (void)::kill(child, SIGKILL);
        (void)reap(0);
    }
}

FinishedRun run_server_to_its_end(std::vector<std::string> arguments, Milliseconds wait) {
    ServerOptions options;
    options.arguments = std::move(arguments);
    return run_server_to_its_end(std::move(options), wait);
}

FinishedRun run_server_to_its_end(ServerOptions options, Milliseconds wait) {
    options.wait_until_ready = false;
    ServerProcess server(options);
    FinishedRun run;
    run.end = server.wait_for_exit(wait);
    run.err = server.err().raw_text();
    run.out = server.out().raw_text();
    return run;
}
