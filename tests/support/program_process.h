// A program as a child process: the server, a tool, an example or a script. Its standard output and standard
// error are captured while it runs. Its standard input is empty.
//
// The destructor kills a program that is still running. Start programs on the thread that lives as long as
// the test.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/captured_output.h"
#include "tests/support/output_pipe.h"
#include "tests/support/time_limits.h"

struct ProgramOptions {
    // NAME=value entries that override the test's environment.
    std::vector<std::string> environment = {};
    // Removes root's right to ignore file permissions.
    bool obeys_file_modes = false;
    // Standard descriptors (0, 1, 2) to close before the program starts.
    std::vector<int> closed_descriptors = {};
    // setrlimit(2) pairs: resource and limit.
    std::vector<std::pair<int, unsigned long>> limits = {};
    // Size of the standard error pipe; 0: system default.
    int stderr_pipe_bytes = 0;
    // If set, standard error goes to this file and is not captured. For servers that run for hours.
    std::string stderr_file = {};
};

// How a program ended: by exit with a status, or by a signal (status is -1).
struct ProgramEnd {
    int status = -1;
    int signal = 0;

    bool operator==(const ProgramEnd&) const = default;
    // Returns "status S, signal N".
    std::string text() const;
};

class ChildProcess {
  public:
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return child; }
    bool is_running();
    // Throws TestFailure if the program has ended.
    void send_signal(int signal_number);
    // Waits until a signal has stopped every thread of the program. Throws TestFailure at the deadline.
    void wait_until_stopped(Milliseconds wait = DEFAULT_WAIT) const;

  protected:
    ChildProcess() = default;
    ~ChildProcess();

    // command is the program and its arguments. A name without a slash is searched for in PATH. take_streams
    // runs in the child. A program that cannot be started ends with status 127.
    void start(std::vector<std::string> command, const ProgramOptions& options,
               const std::function<bool()>& take_streams);
    ProgramEnd wait_until_ended(Milliseconds wait);

  private:
    pid_t child = -1;
    std::optional<ProgramEnd> ending;
};

class ProgramProcess : public ChildProcess {
  public:
    explicit ProgramProcess(std::vector<std::string> command, const ProgramOptions& options = {});

    // Both contain everything the program had written before the call, except on standard error while its
    // draining is paused. So after a reply has arrived, the lines printed before it are there.
    const CapturedOutput& out() const { return out_pipe.captured(); }
    const CapturedOutput& err() const { return err_pipe.captured(); }
    // While paused, the program's standard error is not read.
    void pause_draining_stderr() { err_pipe.pause_draining(); }
    void resume_draining_stderr() { err_pipe.resume_draining(); }

    // Waits until the program has ended and all its output is captured. Throws TestFailure at the deadline.
    ProgramEnd wait_for_exit(Milliseconds wait = DEFAULT_WAIT);

  private:
    OutputPipe out_pipe{"standard output"};
    OutputPipe err_pipe{"standard error"};
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
