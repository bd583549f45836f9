// The lines that one output stream of the server has printed so far. The process's pump thread adds them, and
// the test reads them.
//
// A LineMark counts complete lines. Every wait starts at a mark and returns the mark after what it found, so
// the next wait can continue there. Every wait has a deadline. It throws TestFailure with the recent lines if
// the deadline passes or the stream ends without the text. Whole lines are compared, without the newline.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/time_limits.h"

using LineMark = std::size_t;

class CapturedOutput {
  public:
    explicit CapturedOutput(std::string stream_name) : name(std::move(stream_name)) {}

    LineMark mark() const;
    std::string raw_text() const;
    // Returns the complete lines from the mark on.
    std::vector<std::string> lines_since(LineMark from = 0) const;
    std::size_t count(std::string_view line, LineMark from = 0) const;
    std::size_t count_starting(std::string_view prefix, LineMark from = 0) const;

    LineMark wait_for_line(std::string_view line, LineMark from = 0, Milliseconds wait = DEFAULT_WAIT) const {
        return wait_for_lines({std::string(line)}, from, wait);
    }
    // Waits for a line with this prefix. If found is given, it receives the whole line.
    LineMark wait_for_line_starting(std::string_view prefix, LineMark from = 0, std::string* found = nullptr,
                                    Milliseconds wait = DEFAULT_WAIT) const;
    // Waits for these lines in this order. Other lines may come between them.
    LineMark wait_for_lines(const std::vector<std::string>& wanted, LineMark from = 0,
                            Milliseconds wait = DEFAULT_WAIT) const;
    // Waits for these lines without other lines between them.
    LineMark wait_for_consecutive_lines(const std::vector<std::string>& wanted, LineMark from = 0,
                                        Milliseconds wait = DEFAULT_WAIT) const;
    // Waits until the line has been printed `times` times since the mark; times is at least 1.
    void wait_for_count(std::string_view line, std::size_t times, LineMark from = 0,
                        Milliseconds wait = DEFAULT_WAIT) const;
    void wait_for_end(Milliseconds wait = DEFAULT_WAIT) const;

    // For the pump thread.
    void append(std::string_view text);
    void set_ended();

  private:
    // Calls found() with the index of each line in turn, until it returns true: the match ends with
    // that line.
    template <typename Found>
    LineMark wait_until(const std::string& what, LineMark from, Milliseconds wait, Found found) const;

    const std::string name;
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    // Guarded by the mutex.
    std::vector<std::string> lines;
    std::string unfinished_line;
    bool ended = false;
};
