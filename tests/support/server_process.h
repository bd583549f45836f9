// The real server binary as a child process: starts it with arguments, captures its standard error and
// standard output, measures it through /proc, stops it and checks how it ended.
//
// 1. A server that a test left running is stopped with SIGTERM by the destructor and must exit with status 0.
// 2. A server that ended by itself, was killed by a signal, failed an assertion or printed a sanitizer report
//    fails the test, unless the test asked for the exit with wait_for_exit() or kill().
// 3. If the test has failed, the destructor prints the server's output.
// 4. No server outlives the test process. Start servers on the thread that runs the test.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/captured_output.h"
#include "tests/support/time_limits.h"

// The number of server threads without clients. ThreadSanitizer starts its own thread with the first thread
// of the program.
#if defined(__SANITIZE_THREAD__)
constexpr std::size_t THREADS_AT_REST = 2;
#else
constexpr std::size_t THREADS_AT_REST = 1;
#endif

// Returns V9_SERVER_PATH from the environment, or the server built with the tests.
std::string server_path();

// How a process ended: by exit with a status, or by a signal (then status is -1).
struct ProcessEnd {
    int status = -1;
    int signal = 0;
};

struct ServerOptions {
    std::vector<std::string> arguments;
    // NAME=value entries that override the test's environment.
    std::vector<std::string> environment;
    // Standard descriptors (0, 1, 2) to close before the server starts.
    std::vector<int> closed_descriptors;
    // setrlimit(2) pairs: resource and limit.
    std::vector<std::pair<int, unsigned long>> limits;
    bool wait_until_ready = true;
    // Size of the standard error pipe; 0: system default.
    int stderr_pipe_bytes = 0;
    bool drain_stderr = true;
    // If set, standard error goes to this file and is not captured. For servers that run for hours.
    std::string stderr_file = {};
    // Permits a second server on the port. The kernel then distributes clients to both, which a test must not
    // do by accident.
    bool beside_another = false;
};

class ServerProcess {
  public:
    // Starts the server and waits until it listens and has installed its signal handler. Throws TestFailure
    // if this does not happen.
    explicit ServerProcess(const ServerOptions& options = {});
    explicit ServerProcess(std::vector<std::string> arguments);
    ~ServerProcess();
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    // ---- what it prints (server_output.cpp)
    //
    // Both contain everything the server had written before the call, except on standard error while its
    // draining is paused. So after a reply has arrived, the lines printed before it are there.
    const CapturedOutput& err() const;
    const CapturedOutput& out() const;

    // Shorthands for standard error, where nearly all messages go.
    LineMark mark() const { return err().mark(); }
    LineMark wait_for_line(std::string_view line, LineMark from = 0, Milliseconds wait = DEFAULT_WAIT) const {
        return err().wait_for_line(line, from, wait);
    }
    LineMark wait_for_lines(const std::vector<std::string>& lines, LineMark from = 0,
                            Milliseconds wait = DEFAULT_WAIT) const {
        return err().wait_for_lines(lines, from, wait);
    }
    LineMark wait_for_consecutive_lines(const std::vector<std::string>& lines, LineMark from = 0,
                                        Milliseconds wait = DEFAULT_WAIT) const {
        return err().wait_for_consecutive_lines(lines, from, wait);
    }
    std::size_t count(std::string_view line, LineMark from = 0) const { return err().count(line, from); }
    std::vector<std::string> lines_since(LineMark from = 0) const { return err().lines_since(from); }
    std::string raw_text() const { return err().raw_text(); }

    // Waits for last_line and returns the lines from the mark up to it.
    std::vector<std::string> lines_through(std::string_view last_line, LineMark from = 0,
                                           Milliseconds wait = DEFAULT_WAIT) const;
    // While paused, the server's standard error pipe is not read.
    void pause_draining_stderr();
    void resume_draining_stderr();

    // ---- looked up in /proc (server_measurements.cpp)
    std::size_t thread_count() const;
    // The kernel may count a joined thread for a moment longer.
    void wait_for_thread_count(std::size_t count, Milliseconds wait = DEFAULT_WAIT) const;
    std::size_t fd_count() const;
    // The server notices that a control client has left when it next polls the control socket.
    void wait_for_fd_count(std::size_t count, Milliseconds wait = DEFAULT_WAIT) const;
    std::size_t rss_kib() const;
    // Waits until the server has returned the memory that is free at the call, 10 s after the last
    // client left.
    std::size_t rss_kib_at_rest() const;
    Milliseconds cpu_time() const;
    // Whether the main thread is inside a write to standard error. It stays there while the pipe is full.
    bool main_thread_writes_to_stderr() const;
    // Waits until no signal is pending. Pending signals of the same kind count once.
    void wait_until_signals_are_taken(Milliseconds wait = DEFAULT_WAIT) const;

    // ---- its life
    pid_t pid() const { return child; }
    bool is_running();
    void send_signal(int signal_number);
    // Send SIGSTOP and SIGCONT. pause() returns once every thread has stopped.
    void pause();
    void resume();

    // Sends SIGTERM, requires exit status 0 within the wait, and returns how long it took.
    // Throws TestFailure.
    Milliseconds stop(Milliseconds wait = DEFAULT_WAIT);
    // Waits for an expected exit with any status, and for the end of both streams.
    ProcessEnd wait_for_exit(Milliseconds wait = DEFAULT_WAIT);
    void kill();

  private:
    void start(const ServerOptions& options);
    void pump();
    void end_pump();
    bool take(int fd, CapturedOutput& captured) const;
    void take_all(int fd, CapturedOutput& captured) const;
    void wait_until_ready();
    // Returns a field of /proc/<pid>/status, such as "Threads:", as text.
    std::string status_field(const std::string& field) const;
    bool reap(int wait_options);
    bool wait_until_ended(Milliseconds wait);
    std::string sanitizer_report() const;

    pid_t child = -1;
    bool ended = false;
    bool end_was_expected = false;
    bool paused = false;
    ProcessEnd end;
    int err_fd = -1;
    int out_fd = -1;
    int wake_fd = -1;
    std::atomic<bool> draining_stderr{true};
    std::atomic<bool> pump_may_end{false};
    // Held while bytes move from a pipe to the capture, so they are always in one of the two.
    mutable std::mutex pipe_mutex;
    mutable std::string pipe_buffer;
    mutable CapturedOutput captured_err{"standard error"};
    mutable CapturedOutput captured_out{"standard output"};
    std::thread pump_thread;
    static inline int servers_alive = 0;
};

// Runs the server to its end, for command lines that make it exit by itself.
struct FinishedRun {
    ProcessEnd end;
    std::string err;
    std::string out;
};
FinishedRun run_server_to_its_end(std::vector<std::string> arguments, Milliseconds wait = DEFAULT_WAIT);
FinishedRun run_server_to_its_end(ServerOptions options, Milliseconds wait = DEFAULT_WAIT);
