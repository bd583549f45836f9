// The real server binary as a child process: starts it with arguments, captures its standard error and
// standard output, measures it through /proc, stops it and checks how it ended.
//
// 1. A server that a test left running is stopped with SIGTERM by the destructor and must exit with status 0.
// 2. A server that ended by itself, was killed by a signal, failed an assertion or printed a sanitizer report
//    fails the test, unless the test asked for the exit with wait_for_exit() or kill().
// 3. If the test has failed, the destructor prints the server's output.
// 4. No server outlives the test process. Start servers on the thread that runs the test.
#pragma once

#include <string>
#include <vector>

#include "tests/support/captured_output.h"
#include "tests/support/program_process.h"
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

struct ServerOptions : ProgramOptions {
    std::vector<std::string> arguments = {};
    bool wait_until_ready = true;
    // Permits a second server on the port. The kernel then distributes clients to both, which a test must not
    // do by accident.
    bool beside_another = false;
};

class ServerProcess : public ProgramProcess {
  public:
    // Starts the server and waits until it listens and has installed its signal handler. Throws TestFailure
    // if this does not happen.
    explicit ServerProcess(const ServerOptions& options = {});
    explicit ServerProcess(std::vector<std::string> arguments);
    ~ServerProcess();

    // ---- what it prints: shorthands for standard error, where nearly all messages go
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
    // Send SIGSTOP and SIGCONT. pause() returns once every thread has stopped.
    void pause();
    void resume();

    // Sends SIGTERM, requires exit status 0 within the wait, and returns how long it took.
    // Throws TestFailure.
    Milliseconds stop(Milliseconds wait = DEFAULT_WAIT);
    // Waits for an expected exit with any status, and for the end of both streams.
    ProgramEnd wait_for_exit(Milliseconds wait = DEFAULT_WAIT);
    void kill();

  private:
    void wait_until_ready();
    // Returns a field of /proc/<pid>/status, such as "Threads:", as text.
    std::string status_field(const std::string& field) const;

    bool end_was_expected = false;
    bool paused = false;
};

// Runs the server to its end, for command lines that make it exit by itself.
ProgramRun run_server_to_its_end(ServerOptions options, Milliseconds wait = DEFAULT_WAIT);
