#include "tools/v9_rtmp_ctl/screen.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>

namespace {

// Alternate screen, no cursor, no wrapping of a line that is as wide as the screen.
constexpr std::string_view TAKE = "\x1b[?1049h\x1b[?25l\x1b[?7l\x1b[2J";
constexpr std::string_view GIVE_BACK = "\x1b[0m\x1b[?7h\x1b[?25h\x1b[?1049l";

sigset_t signals_to_tell() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGTSTP, SIGWINCH}) {
        sigaddset(&set, number);
    }
    return set;
}

bool can_fill_a_screen() {
    const char* const term = std::getenv("TERM");
    return isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0 && term != nullptr && *term != '\0' &&
           std::string_view(term) != "dumb";
}

}  // namespace

std::unique_ptr<Screen> Screen::open() {
    termios usual{};
    if (!can_fill_a_screen() || tcgetattr(STDIN_FILENO, &usual) != 0) {
        return nullptr;
    }
    const sigset_t told = signals_to_tell();
    const int fd = signalfd(-1, &told, SFD_NONBLOCK | SFD_CLOEXEC);
    if (fd < 0) {
        return nullptr;
    }
    sigset_t held = told;
    // In the background, giving the terminal back must not stop the process half way.
    sigaddset(&held, SIGTTOU);
    sigset_t usual_signals;
    pthread_sigmask(SIG_BLOCK, &held, &usual_signals);
    std::unique_ptr<Screen> screen(new Screen(fd, usual, usual_signals));
    screen->take();
    return screen;
}

Screen::Screen(int signal_descriptor, const termios& usual, const sigset_t& usual_signals)
    : signals(signal_descriptor), usual_mode(usual), usual_mask(usual_signals) {}

Screen::~Screen() {
    give_back();
    // What was told is not left to end the process once more, behind the caller's back.
    static_cast<void>(read_signals());
    close(signals);
    pthread_sigmask(SIG_SETMASK, &usual_mask, nullptr);
}

void Screen::take() const {
    termios mode = usual_mode;
    mode.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | IEXTEN);
    mode.c_iflag &= ~static_cast<tcflag_t>(IXON | ICRNL);
    mode.c_cc[VMIN] = 0;
    mode.c_cc[VTIME] = 0;
    tcsetattr(STDIN_FILENO, TCSANOW, &mode);
    static_cast<void>(write(TAKE));
}

void Screen::give_back() const {
    static_cast<void>(write(GIVE_BACK));
    tcsetattr(STDIN_FILENO, TCSANOW, &usual_mode);
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
    // Only called when there is something to read, and then nothing read means that the terminal hung up.
    const ssize_t n = read(STDIN_FILENO, typed.data(), typed.size());
    if (n > 0) {
        bytes.append(typed.data(), static_cast<std::size_t>(n));
    }
    return n > 0 || (n < 0 && (errno == EINTR || errno == EAGAIN));
}

bool Screen::write(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
        if (n > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(n));
        } else if (n < 0 && errno == EAGAIN) {
            pollfd ready = {STDOUT_FILENO, POLLOUT, 0};
            poll(&ready, 1, -1);
        } else if (n == 0 || errno != EINTR) {
            return false;
        }
    }
    return true;
}

void Screen::suspend() {
    give_back();
    kill(getpid(), SIGSTOP);
    take();
}
