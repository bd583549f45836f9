#include "tests/support/server_process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>

#include "tests/support/test_failure.h"

namespace {

constexpr std::size_t SHOWN_LINES = 200;

int servers_alive = 0;

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

std::vector<std::string> command_line(const ServerOptions& options) {
    if (servers_alive > 0 && !options.beside_another) {
        throw TestFailure("another server of this test is still alive");
    }
    std::vector<std::string> command = {server_path()};
    command.insert(command.end(), options.arguments.begin(), options.arguments.end());
    return command;
}

ProgramOptions with_sanitizer_options(ProgramOptions options) {
    // If two entries have the same name, the first counts.
    options.environment.push_back(sanitizer_options());
    return options;
}

bool is_sanitizer_report(const std::string& line) {
    return line.find("Sanitizer: ") != std::string::npos ||
           line.find(": runtime error: ") != std::string::npos;
}

void print_recent_lines(const std::vector<std::string>& lines) {
    std::cerr << "---- the server's standard error (" << lines.size() << " lines)\n";
    for (std::size_t i = lines.size() > SHOWN_LINES ? lines.size() - SHOWN_LINES : 0; i < lines.size(); ++i) {
        std::cerr << lines[i] << '\n';
    }
    std::cerr << "----\n";
}

}  // namespace

std::string server_path() {
    const char* const path = std::getenv("V9_SERVER_PATH");
    return path != nullptr ? path : V9_SERVER_PATH;
}

ServerProcess::ServerProcess(const ServerOptions& options)
    : ProgramProcess(command_line(options), with_sanitizer_options(options)) {
    if (options.wait_until_ready) {
        wait_until_ready();
    }
    ++servers_alive;
}

ServerProcess::ServerProcess(std::vector<std::string> arguments)
    : ServerProcess(ServerOptions{{}, std::move(arguments)}) {}

ServerProcess::~ServerProcess() {
    const bool unwinding = std::uncaught_exceptions() > 0;
    try {
        if (!end_was_expected) {
            stop();
        }
    } catch (const std::exception& failure) {
        ADD_FAILURE() << failure.what();
    }
    resume_draining_stderr();
    const std::vector<std::string> lines = lines_since();
    const auto report = std::ranges::find_if(lines, is_sanitizer_report);
    if (report != lines.end()) {
        ADD_FAILURE() << "the server printed a report: " << *report;
    }
    if (unwinding || testing::Test::HasFailure()) {
        print_recent_lines(lines);
    }
    --servers_alive;
}

void ServerProcess::wait_until_ready() {
    // The handler for SIGQUIT is the last thing the server sets up before its main loop, which begins by
    // sleeping. ThreadSanitizer can lose a signal that arrives before signal() has returned.
    constexpr unsigned long long SIGQUIT_BIT = 1ULL << (SIGQUIT - 1);
    const auto is_ready = [this] {
        return !is_running() || ((std::stoull(status_field("SigCgt:"), nullptr, 16) & SIGQUIT_BIT) != 0 &&
                                 status_field("State:").starts_with('S'));
    };
    if (!holds_within(DEFAULT_WAIT, is_ready) || !is_running()) {
        throw TestFailure("the server did not get ready:\n" + raw_text());
    }
}

std::vector<std::string> ServerProcess::lines_through(std::string_view last_line, LineMark from,
                                                      Milliseconds wait) const {
    const LineMark to = wait_for_line(last_line, from, wait);
    std::vector<std::string> lines = lines_since(from);
    lines.resize(to - from);
    return lines;
}

void ServerProcess::pause() {
    send_signal(SIGSTOP);
    wait_until_stopped();
    paused = true;
}

void ServerProcess::resume() {
    paused = false;
    send_signal(SIGCONT);
}

Milliseconds ServerProcess::stop(Milliseconds wait) {
    end_was_expected = true;
    resume_draining_stderr();
    if (paused) {
        resume();
    }
    const TimePoint start_time = SteadyClock::now();
    send_signal(SIGTERM);
    const ProgramEnd end = wait_for_exit(wait);
    if (end.status != 0) {
        throw TestFailure("the server was stopped and ended with " + end.text());
    }
    return elapsed_since(start_time);
}

ProgramEnd ServerProcess::wait_for_exit(Milliseconds wait) {
    const ProgramEnd end = ProgramProcess::wait_for_exit(wait);
    end_was_expected = true;
    return end;
}

void ServerProcess::kill() {
    send_signal(SIGKILL);
    (void)wait_for_exit();
}

ProgramRun run_server_to_its_end(ServerOptions options, Milliseconds wait) {
    options.wait_until_ready = false;
    ServerProcess server(options);
    const ProgramEnd end = server.wait_for_exit(wait);
    return {end, server.out().raw_text(), server.err().raw_text()};
}
