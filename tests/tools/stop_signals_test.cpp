#include "tools/v9_rtmp_ctl/stop_signals.h"

#include <gtest/gtest.h>

#include <csignal>

TEST(stop_signals, each_of_them_is_reported) {
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        StopSignals stop;
        EXPECT_FALSE(stop.wait_until(0)) << number;
        raise(number);
        EXPECT_TRUE(stop.wait_until(0)) << number;
    }
}

TEST(stop_signals, a_signal_that_was_ignored_stays_ignored) {
    const auto usual = std::signal(SIGHUP, SIG_IGN);
    {
        StopSignals stop;
        raise(SIGHUP);
        EXPECT_FALSE(stop.wait_until(0));
        raise(SIGTERM);
        EXPECT_TRUE(stop.wait_until(0));
    }
    std::signal(SIGHUP, usual);
}
