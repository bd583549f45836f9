// A program in its own pseudo-terminal: its screen, typed input, and whether it restores the terminal.
//
// The terminal has 24 rows of 80 columns, type xterm, and a prompt on its screen before the program starts.
// The destructor kills a program that is still running.
#pragma once

#include <termios.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stop_token>
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

class TerminalProgram : public ChildProcess {
  public:
    // environment: NAME=value entries, which override TERM=xterm.
    explicit TerminalProgram(std::vector<std::string> command, std::vector<std::string> environment = {});
    ~TerminalProgram();

    void type(std::string_view keys) const;
    void resize(std::size_t rows, std::size_t columns);
    // Makes the terminal accept no more output, as after Ctrl-S or on a hung network link; then accept
    // it again.
    void stop_taking_output();
    void take_output_again() { takes_output = true; }
    // Closes the terminal, like closing its window. Nothing more is captured.
    void hang_up();

    // Returns a copy of the current screen.
    TerminalScreen screen() const;
    // Returns everything the program has written.
    std::string raw_text() const;
    // Waits until the rows of the screen are as wanted and returns them. At the deadline throws TestFailure
    // with the screen.
    using Wanted = std::function<bool(const std::vector<std::string>& rows)>;
    std::vector<std::string> wait_for_rows(const std::string& what, const Wanted& wanted,
                                           Milliseconds wait = DEFAULT_WAIT) const;
    // Waits until a row contains the text.
    std::vector<std::string> wait_for_text(const std::string& text, Milliseconds wait = DEFAULT_WAIT) const;

    // Waits until a whole row matches the extended regular expression.
    std::vector<std::string> wait_for_row(const std::string& pattern, Milliseconds wait = DEFAULT_WAIT) const;

    ProgramEnd wait_for_exit(Milliseconds wait = DEFAULT_WAIT);
    // Call after the exit or stop. Empty if the program has restored the terminal's modes, screens, cursor
    // and style; otherwise says what it left changed.
    std::string damage() const;

  private:
    void pump(const std::stop_token& stop_requested);

    int master_fd = -1;
    int terminal_fd = -1;  // keeps the terminal's modes after the program exits
    termios modes_before{};
    std::atomic<bool> takes_output{true};
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    // Guarded by the mutex.
    TerminalScreen shown{TERMINAL_ROWS, TERMINAL_COLUMNS};
    std::string written;
    std::jthread pump_thread;
};
