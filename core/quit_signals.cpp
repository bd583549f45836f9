#include "core/quit_signals.h"

#include <csignal>
#include <cstdlib>
#include <initializer_list>

std::atomic<int> quit_signals = 0;

namespace {

constexpr int SIGNALS_BEFORE_ABORT = 9;

extern "C" void on_quit_signal(int /*signal_number*/) {
    if (quit_signals.fetch_add(1) + 1 > SIGNALS_BEFORE_ABORT) {
        std::abort();
    }
}

}  // namespace

void install_quit_handler() {
    // Calls interrupted by a handler from signal() are restarted: a quit signal delivered to a reader thread
    // must not interrupt its recv.
    for (const int number : {SIGINT, SIGTERM, SIGQUIT}) {
        std::signal(number, on_quit_signal);
    }
}
