// A program in a pseudo-terminal of its own, as a person uses it: what it shows, what is typed, and whether
// it leaves the terminal as it found it.
//
// The terminal has 24 rows of 80 columns, the type xterm, and a prompt on its screen before the program
// starts. A program that still runs when its TerminalProgram goes is killed.
#pragma once

#include <sys/types.h>
#include <termios.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/support/program_process.h"
#include "tests/support/terminal_screen.h"
#include "tests/support/time_limits.h"

constexpr std::size_t TERMINAL_ROWS = 24;
constexpr std::size_t TERMINAL_COLUMNS = 80;
inline const std::string TERMINAL_PROMPT = "$ what was here before";

class TerminalProgram {
  public:
    // environment: NAME=value entries beside TERM=xterm, before which they count.
    explicit TerminalProgram(std::vector<std::string> command, std::vector<std::string> environment = {});
    ~TerminalProgram();
    TerminalProgram(const TerminalProgram&) = delete;
    TerminalProgram& operator=(const TerminalProgram&) = delete;

    void type(std::string_view keys) const;
    void send_signal(int signal_number) const;
    void resize(std::size_t rows, std::size_t columns);
    // The terminal is full and takes nothing more, as when Ctrl-S was pressed or a network link hangs; then
    // it does again.
    void stop_taking_output();
    void take_output_again() { takes_output = true; }
    // The terminal goes away, as when its window is closed. Nothing more is captured.
    void hang_up();

    // A copy of the screen as it is.
    TerminalScreen screen() const;
    // Everything the program has written.
    std::string raw_text() const;
    // Waits until the rows of the screen are as wanted and returns them. Throws TestFailure, with the screen,
    // at the deadline.
    using Wanted = std::function<bool(const std::vector<std::string>& rows)>;
    std::vector<std::string> wait_for_rows(const std::string& what, const Wanted& wanted,
                                           Milliseconds wait = DEFAULT_WAIT) const;
    // Waits until some row contains the text.
    std::vector<std::string> wait_for_text(const std::string& text, Milliseconds wait = DEFAULT_WAIT) const;

    // Waits until some whole row matches the extended regular expression.
    std::vector<std::string> wait_for_row(const std::string& pattern, Milliseconds wait = DEFAULT_WAIT) const;

    // Waits until it does nothing because a signal has stopped it. Throws TestFailure at the deadline.
    void wait_until_stopped(Milliseconds wait = DEFAULT_WAIT) const;
    ProgramEnd wait_for_exit(Milliseconds wait = DEFAULT_WAIT);
    // After the exit or the stop: empty when the terminal is as the program found it, modes, screens, cursor
    // and style; else what is not.
    std::string damage() const;

  private:
    void pump();

    int master_fd = -1;
    int terminal_fd = -1;  // kept open, so that the terminal's modes outlive the program
    termios modes_before{};
    pid_t child = -1;
    std::atomic<bool> pump_may_end{false};
    std::atomic<bool> takes_output{true};
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    // Under the mutex.
    TerminalScreen shown{TERMINAL_ROWS, TERMINAL_COLUMNS};
    std::string written;
    std::thread pump_thread;
};
