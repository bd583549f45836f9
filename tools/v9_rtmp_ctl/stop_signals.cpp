#include "tools/v9_rtmp_ctl/stop_signals.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "tools/v9_rtmp_ctl/control_client.h"

namespace {

// A signal that was ignored at the start stays ignored: nohup and background jobs of scripts rely on that.
sigset_t stop_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action {};
        if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
            sigaddset(&signals, signal);
        }
    }
    return signals;
}

int open_signals() {
    const sigset_t signals = stop_signals();
    const int fd = signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
    if (fd < 0) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    return fd;
}

}  // namespace

StopSignals::StopSignals() : fd(open_signals()) {
    const sigset_t signals = stop_signals();
    pthread_sigmask(SIG_BLOCK, &signals, &usual_mask);
}

StopSignals::~StopSignals() {
    // Discard pending signals, so they do not end the process when unblocked.
    static_cast<void>(wait_until(0));
    close(fd);
    pthread_sigmask(SIG_SETMASK, &usual_mask, nullptr);
}

bool StopSignals::wait_until(std::uint64_t moment_us) {
    constexpr std::uint64_t LONGEST_WAIT_US = 60000000;
    for (;;) {
        const std::uint64_t now_us = clock_us();
        const std::uint64_t left_us =
            has_come || moment_us <= now_us ? 0 : std::min(moment_us - now_us, LONGEST_WAIT_US);
        pollfd waited{fd, POLLIN, 0};
        poll(&waited, 1, static_cast<int>((left_us + 999) / 1000));
        signalfd_siginfo signal{};
        while (read(fd, &signal, sizeof signal) > 0) {
            has_come = true;
        }
        if (has_come || clock_us() >= moment_us) {
            return has_come;
        }
    }
}
