// A program beside the server, as a child process: a tool, an example, a script. Its standard output and
// standard error are captured while it runs; its standard input is empty.
//
// A program that still runs when its ProgramProcess goes is killed. Start programs on the thread that lives
// as long as the test.
#pragma once

#include <sys/types.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/support/captured_output.h"
#include "tests/support/time_limits.h"

struct ProgramOptions {
    // NAME=value entries that replace those of the test's own environment.
    std::vector<std::string> environment = {};
    // Root without the right to ignore what files and directories forbid.
    bool obeys_file_modes = false;
};

// How a program ended: by exit with a status, or by a signal (then status is -1).
struct ProgramEnd {
    int status = -1;
    int signal = 0;

    bool operator==(const ProgramEnd&) const = default;
};

class ProgramProcess {
  public:
    // command is the program and its arguments; a name without a slash is looked for in PATH. A program that
    // cannot be started ends with status 127.
    explicit ProgramProcess(std::vector<std::string> command, const ProgramOptions& options = {});
    ~ProgramProcess();
    ProgramProcess(const ProgramProcess&) = delete;
    ProgramProcess& operator=(const ProgramProcess&) = delete;

    const CapturedOutput& out() const { return captured_out; }
    const CapturedOutput& err() const { return captured_err; }

    void send_signal(int signal_number) const;
    // Waits until it has ended and everything that it wrote is captured. Throws TestFailure at the deadline.
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

// What a program said and how it ended, when it has been run to its end.
struct ProgramRun {
    ProgramEnd end;
    std::string out;
    std::string err;
    // From its start to its end.
    Milliseconds took{0};
};
ProgramRun run_program(std::vector<std::string> command, const ProgramOptions& options = {},
                       Milliseconds wait = DEFAULT_WAIT);

// The environment of this process with these entries instead of its own of the same names.
std::vector<std::string> environment_with(const std::vector<std::string>& entries);

// Waits for a child and reaps it. Throws TestFailure at the deadline.
ProgramEnd wait_for_child(pid_t child, Milliseconds wait);

// Between fork and exec, in the child: dies with parent, takes no signal as ignored or blocked, and becomes
// the program.
[[noreturn]] void become_program(pid_t parent, bool obeys_file_modes, char* const* argv, char* const* envp);

// Pointers to the strings and a null behind them, as exec takes them.
std::vector<char*> exec_pointers(std::vector<std::string>& strings);
