#include "core/quit_signals.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

namespace {

// Ends with status 0 if the process still runs after this many signals and has counted them all.
void raise_times(int signal_number, int times) {
    install_quit_handler();
    for (int i = 0; i < times; ++i) {
        (void)std::raise(signal_number);
    }
    std::exit(quit_signals.load() == times ? 0 : 1);
}

}  // namespace

TEST(quit_signals_death, nine_signals_are_counted) {
    for (const int number : {SIGINT, SIGTERM, SIGQUIT}) {
        EXPECT_EXIT(raise_times(number, 9), testing::ExitedWithCode(0), "^$") << number;
    }
}

TEST(quit_signals_death, the_tenth_signal_ends_a_process_that_is_stuck) {
    for (const int number : {SIGINT, SIGTERM, SIGQUIT}) {
        EXPECT_EXIT(raise_times(number, 10), testing::KilledBySignal(SIGABRT), "") << number;
    }
}
