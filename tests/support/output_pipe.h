// The pipe that a program writes one of its output streams to, and what was read from it.
#pragma once

#include <atomic>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>

#include "tests/support/captured_output.h"

class OutputPipe {
  public:
    explicit OutputPipe(std::string stream_name);
    // Reads what was written before, without waiting for the end of the stream: another process may hold the
    // other end.
    ~OutputPipe();
    OutputPipe(const OutputPipe&) = delete;
    OutputPipe& operator=(const OutputPipe&) = delete;

    // For the program. Closed by close_write_end().
    int write_end() const { return write_fd; }
    void close_write_end();

    // Contains everything the program had written before the call, except while the pipe is not drained.
    const CapturedOutput& captured() const;
    void pause_draining() { draining = false; }
    void resume_draining() { draining = true; }

  private:
    void pump(const std::stop_token& stop_requested);
    bool take() const;

    mutable CapturedOutput output;
    int read_fd = -1;
    int write_fd = -1;
    std::atomic<bool> draining{true};
    // Held while bytes move from the pipe to the output, so they are always in one of the two.
    mutable std::mutex mutex;
    mutable std::string buffer;
    mutable std::atomic<bool> at_end{false};
    std::jthread thread;
};
