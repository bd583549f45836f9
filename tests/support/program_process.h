// A program other than the server as a child process: a tool, an example or a script. Its standard output and
// standard error are captured while it runs. Its standard input is empty.
//
// The destructor kills a program that is still running. Start programs on the thread that lives as long as
// the test.
#pragma once

#include <sys/types.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/support/captured_output.h"
#include "tests/support/time_limits.h"

struct ProgramOptions {
    // NAME=value entries that override the test's environment.
    std::vector<std::string> environment = {};
    // Removes root's right to ignore file permissions.
    bool obeys_file_modes = false;
};

// How a program ended: by exit with a status, or by a signal (status is -1).
struct ProgramEnd {
    int status = -1;
    int signal = 0;

    bool operator==(const ProgramEnd&) const = default;
};

class ProgramProcess {
  public:
    // command is the program and its arguments. A name without a slash is searched for in PATH. A program
    // that cannot be started ends with status 127.
    explicit ProgramProcess(std::vector<std::string> command, const ProgramOptions& options = {});
    ~ProgramProcess();
    ProgramProcess(const ProgramProcess&) = delete;
    ProgramProcess& operator=(const ProgramProcess&) = delete;

    const CapturedOutput& out() const { return captured_out; }
    const CapturedOutput& err() const { return captured_err; }

    void send_signal(int signal_number) const;
    // Waits until the program has ended and all its output is captured. Throws TestFailure at the deadline.
    ProgramEnd wait_for_exit(Milliseconds wait = DEFAULT_WAIT);

  private:
    void pump() const;

    pid_t child = -1;
    int out_fd = -1;
    int err_fd = -1;
    mutable CapturedOutput captured_out{"standard output"};
    mutable CapturedOutput captured_err{"standard error"};
    std::thread pump_thread;
};

// The output and end of a program that was run to its end.
struct ProgramRun {
    ProgramEnd end;
    std::string out;
    std::string err;
    // Time from start to end.
    Milliseconds took{0};
};
ProgramRun run_program(std::vector<std::string> command, const ProgramOptions& options = {},
                       Milliseconds wait = DEFAULT_WAIT);

// Returns the environment of this process, with these entries overriding its own.
std::vector<std::string> environment_with(const std::vector<std::string>& entries);

// Waits for a child and reaps it. Throws TestFailure at the deadline.
ProgramEnd wait_for_child(pid_t child, Milliseconds wait);

// Call in the child between fork and exec: sets it to die with parent, resets ignored and blocked signals,
// and executes the program.
[[noreturn]] void become_program(pid_t parent, bool obeys_file_modes, char* const* argv, char* const* envp);

// Returns pointers to the strings, followed by a null, as exec needs them.
std::vector<char*> exec_pointers(std::vector<std::string>& strings);
