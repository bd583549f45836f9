#include "tools/v9_rtmp_ctl/screen.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include "tools/v9_rtmp_ctl/io_errors.h"

namespace {

// Alternate screen, no cursor, no wrapping of lines as wide as the screen.
constexpr std::string_view TAKE = "\x1b[?1049h\x1b[?25l\x1b[?7l\x1b[2J";
constexpr std::string_view GIVE_BACK = "\x1b[0m\x1b[?7h\x1b[?25h\x1b[?1049l";

// Returns the signals that would end or stop the process while it has the terminal, and SIGWINCH. Leaves out
// those that cannot be blocked, and those of a crash, which should leave a core dump.
sigset_t signals_to_tell() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number :
         {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2, SIGALRM, SIGVTALRM, SIGPROF, SIGXCPU, SIGXFSZ,
          SIGPIPE, SIGIO, SIGPWR, SIGSTKFLT, SIGTSTP, SIGTTIN, SIGTTOU, SIGWINCH}) {
        sigaddset(&set, number);
    }
    for (int number = SIGRTMIN; number <= SIGRTMAX; ++number) {
        sigaddset(&set, number);
    }
    return set;
}

bool can_fill_a_screen() {
    const char* const term = std::getenv("TERM");
    return isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0 && term != nullptr && *term != '\0' &&
           std::string_view(term) != "dumb";
}

// Waits until this process is in the foreground: the system stops a background process with SIGTTOU. False if
// no shell can bring it to the foreground, or if there is no terminal.
bool wait_for_foreground() {
    int result = 0;
    do {
        result = tcdrain(STDIN_FILENO);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

unsigned device_of(int fd) {
    unsigned device = 0;
    return ioctl(fd, TIOCGDEV, &device) == 0 ? device : 0;
}

// Opens the terminal of standard output again, so that O_NONBLOCK affects this process only: the shell shares
// the original open file description. If the terminal cannot be opened again, the returned descriptor is a
// blocking one.
int open_output() {
    for (const char* const path : {"/dev/tty", "/proc/self/fd/1"}) {
        const int fd = open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        if (fd >= 0 && device_of(fd) == device_of(STDOUT_FILENO)) {
            return fd;
        }
        if (fd >= 0) {
            close(fd);
        }
    }
    return fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
}

// Writes bytes and removes those that the terminal accepted. False if the terminal is gone.
bool write_some(int fd, std::string_view& bytes) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0) {
        return can_try_again(errno);
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
    return n > 0;
}

}  // namespace

std::unique_ptr<Screen> Screen::open() {
    termios usual{};
    // In the background, the modes are those of the job that has the terminal.
    if (!can_fill_a_screen() || !wait_for_foreground() || tcgetattr(STDIN_FILENO, &usual) != 0) {
        return nullptr;
    }
    const sigset_t told = signals_to_tell();
    const int fd = signalfd(-1, &told, SFD_NONBLOCK | SFD_CLOEXEC);
    if (fd < 0) {
        return nullptr;
    }
    const int output = open_output();
    if (output < 0) {
        close(fd);
        return nullptr;
    }
    sigset_t usual_signals;
    pthread_sigmask(SIG_BLOCK, &told, &usual_signals);
    std::unique_ptr<Screen> screen(new Screen(fd, output, usual, usual_signals));
    return screen->take() ? std::move(screen) : nullptr;
}

Screen::Screen(int signal_descriptor, int output_descriptor, const termios& usual,
               const sigset_t& usual_signals)
    : signals(signal_descriptor), output(output_descriptor), usual_mode(usual), usual_mask(usual_signals) {}

Screen::~Screen() {
    give_back();
    // Discard pending signals, so they do not end the process when unblocked.
    static_cast<void>(read_signals());
    close(signals);
    close(output);
    pthread_sigmask(SIG_SETMASK, &usual_mask, nullptr);
}

bool Screen::take() {
    termios mode = usual_mode;
    mode.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | IEXTEN);
    mode.c_iflag &= ~static_cast<tcflag_t>(IXON | ICRNL);
    mode.c_cc[VMIN] = 0;
    mode.c_cc[VTIME] = 0;
    is_taken = tcsetattr(STDIN_FILENO, TCSANOW, &mode) == 0;
    return is_taken && write(TAKE);
}

// SIGTTOU is blocked, so this also works in the background.
void Screen::give_back() {
    if (!is_taken) {
        return;
    }
    // Output still pending would block the bytes that restore the terminal.
    if (!write_in_time(GIVE_BACK)) {
        tcflush(output, TCOFLUSH);
        static_cast<void>(write_in_time(GIVE_BACK));
    }
    tcsetattr(STDIN_FILENO, TCSANOW, &usual_mode);
    is_taken = false;
}

bool Screen::is_in_background() {
    const pid_t foreground = tcgetpgrp(STDIN_FILENO);
    return foreground > 0 && foreground != getpgrp();
}

int Screen::key_fd() {
    return STDIN_FILENO;
}

SignalEvents Screen::read_signals() const {
    SignalEvents events;
    signalfd_siginfo info{};
    while (read(signals, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        switch (info.ssi_signo) {
            case SIGWINCH:
                events.resize = true;
                break;
            case SIGTSTP:
            case SIGTTIN:
            case SIGTTOU:
                events.suspend = true;
                break;
            default:
                events.quit = true;
                break;
        }
    }
    return events;
}

bool Screen::read_keys(std::string& bytes) {
    std::array<char, 256> typed{};
    // This is called only when input is ready, so 0 bytes mean that the terminal hung up.
    const ssize_t n = read(STDIN_FILENO, typed.data(), typed.size());
    if (n > 0) {
        bytes.append(typed.data(), static_cast<std::size_t>(n));
    }
    return n > 0 || (n < 0 && can_try_again(errno));
}

bool Screen::write(std::string_view bytes) const {
    while (!bytes.empty()) {
        std::array<pollfd, 2> waited{{{output, POLLOUT, 0}, {signals, POLLIN, 0}}};
        poll(waited.data(), waited.size(), -1);
        if (waited[1].revents != 0) {
            return true;
        }
        if (!write_some(output, bytes)) {
            return false;
        }
    }
    return true;
}

bool Screen::write_in_time(std::string_view bytes) const {
    constexpr int MAX_WAIT_MS = 200;
    while (!bytes.empty()) {
        pollfd ready{output, POLLOUT, 0};
        if (poll(&ready, 1, MAX_WAIT_MS) == 0 || !write_some(output, bytes)) {
            return false;
        }
    }
    return true;
}

bool Screen::suspend() {
    give_back();
    // The terminal has been given back, so signals may have their usual effect.
    sigset_t told;
    pthread_sigmask(SIG_SETMASK, &usual_mask, &told);
    // SIGSTOP would also stop a process that no shell can continue, and stop it for good.
    raise(SIGTSTP);
    const bool in_foreground = wait_for_foreground();
    pthread_sigmask(SIG_SETMASK, &told, nullptr);
    return in_foreground && take();
}
