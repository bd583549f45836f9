#include "tests/support/terminal_program.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utmp.h>

#include <algorithm>
#include <array>

#include "tests/support/test_failure.h"

namespace {

using testing::Contains;

// How long stopping may wait for the reading thread.
constexpr int READ_SLICE_MS = 20;

winsize size_of(std::size_t rows, std::size_t columns) {
    winsize size{};
    size.ws_row = static_cast<unsigned short>(rows);
    size.ws_col = static_cast<unsigned short>(columns);
    return size;
}

bool same_modes(const termios& a, const termios& b) {
    return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_cflag == b.c_cflag &&
           a.c_lflag == b.c_lflag && std::equal(std::begin(a.c_cc), std::end(a.c_cc), std::begin(b.c_cc));
}

}  // namespace

TerminalProgram::TerminalProgram(std::vector<std::string> command, std::vector<std::string> environment) {
    environment.insert(environment.end(), {"TERM=xterm", "NO_COLOR="});
    const winsize size = size_of(TERMINAL_ROWS, TERMINAL_COLUMNS);
    checked(openpty(&master_fd, &terminal_fd, nullptr, nullptr, &size), "openpty");
    for (const int fd : {master_fd, terminal_fd}) {
        checked(fcntl(fd, F_SETFD, FD_CLOEXEC), "FD_CLOEXEC");
    }
    checked(tcgetattr(terminal_fd, &modes_before), "tcgetattr");
    const std::string prompt = TERMINAL_PROMPT + "\n";
    checked(static_cast<int>(write(terminal_fd, prompt.data(), prompt.size())), "write");
    start(std::move(command), {.environment = std::move(environment)},
          [this] { return login_tty(terminal_fd) == 0; });
    pump_thread = std::jthread([this](const std::stop_token& stop_requested) { pump(stop_requested); });
}

TerminalProgram::~TerminalProgram() {
    hang_up();
}

void TerminalProgram::hang_up() {
    pump_thread.request_stop();
    if (pump_thread.joinable()) {
        pump_thread.join();
        close(terminal_fd);
        close(master_fd);
        master_fd = -1;  // poll ignores it
    }
}

void TerminalProgram::type(std::string_view keys) const {
    checked(static_cast<int>(write(master_fd, keys.data(), keys.size())), "write");
}

void TerminalProgram::resize(std::size_t rows, std::size_t columns) {
    const std::lock_guard guard(mutex);
    shown.resize(rows, columns);
    const winsize size = size_of(rows, columns);
    checked(ioctl(master_fd, TIOCSWINSZ, &size), "TIOCSWINSZ");
}

void TerminalProgram::stop_taking_output() {
    {
        // The pump is not reading now and will not start.
        const std::lock_guard guard(mutex);
        takes_output = false;
    }
    const std::string path = "/proc/self/fd/" + std::to_string(terminal_fd);
    const int filler = checked(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC), "open");
    const std::string blanks(4096, ' ');
    // Output in transit to the terminal may make a little room once more.
    for (int refusals = 0; refusals < 3;) {
        if (write(filler, blanks.data(), blanks.size()) < 0) {
            ++refusals;
            std::this_thread::sleep_for(Milliseconds{10});
        }
    }
    close(filler);
}

TerminalScreen TerminalProgram::screen() const {
    const std::lock_guard guard(mutex);
    return shown;
}

std::string TerminalProgram::raw_text() const {
    const std::lock_guard guard(mutex);
    return written;
}

std::vector<std::string> TerminalProgram::wait_for_rows(const std::string& what, const Wanted& wanted,
                                                        Milliseconds wait) const {
    std::unique_lock guard(mutex);
    if (!changed.wait_for(guard, wait, [&] { return wanted(shown.rows()); })) {
        throw TestFailure("the terminal does not show " + what + ":\n" +
                          testing::PrintToString(shown.rows()));
    }
    return shown.rows();
}

std::vector<std::string> TerminalProgram::wait_for_text(const std::string& text, Milliseconds wait) const {
    return wait_for_rows("'" + text + "'", testing::Matches(Contains(testing::HasSubstr(text))), wait);
}

std::vector<std::string> TerminalProgram::wait_for_row(const std::string& pattern, Milliseconds wait) const {
    return wait_for_rows("a row like " + pattern, testing::Matches(Contains(testing::MatchesRegex(pattern))),
                         wait);
}

ProgramEnd TerminalProgram::wait_for_exit(Milliseconds wait) {
    const ProgramEnd end = wait_until_ended(wait);
    // The program's last output is in the terminal now, and the pump will read it.
    const TimePoint deadline = SteadyClock::now() + wait;
    pollfd entry{master_fd, POLLIN, 0};
    while (takes_output && poll(&entry, 1, 0) == 1 && SteadyClock::now() < deadline) {
        std::this_thread::sleep_for(Milliseconds{1});
    }
    const std::lock_guard guard(mutex);
    return end;
}

std::string TerminalProgram::damage() const {
    termios modes_after{};
    checked(tcgetattr(terminal_fd, &modes_after), "tcgetattr");
    const TerminalScreen after = screen();
    std::string found;
    const auto note = [&found](bool wrong, const std::string& text) { found += wrong ? text + "\n" : ""; };
    note(!same_modes(modes_before, modes_after), "the terminal's modes are others");
    note(after.shows_alternate(), "the alternate screen is shown");
    note(!after.shows_cursor(), "the cursor is hidden");
    note(!after.wraps_lines(), "lines do not wrap");
    note(after.has_style(), "a style is in force");
    note(after.rows()[0] != TERMINAL_PROMPT, "the first line is '" + after.rows()[0] + "'");
    for (const std::string& sequence : after.unknown()) {
        note(true, "an unknown sequence came: " + sequence.substr(1));
    }
    return found;
}

void TerminalProgram::pump(const std::stop_token& stop_requested) {
    while (!stop_requested.stop_requested()) {
        pollfd entry{takes_output ? master_fd : -1, POLLIN, 0};
        if (poll(&entry, 1, READ_SLICE_MS) != 1) {
            continue;
        }
        // Held while reading, so bytes are always either in the terminal or in the capture.
        const std::lock_guard guard(mutex);
        if (!takes_output) {
            continue;
        }
        std::array<char, 65536> chunk{};
        const ssize_t count = read(master_fd, chunk.data(), chunk.size());
        if (count > 0) {
            const std::string_view bytes(chunk.data(), static_cast<std::size_t>(count));
            written += bytes;
            shown.feed(bytes);
            changed.notify_all();
        }
    }
}
