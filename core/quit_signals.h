// Number of quit signals received.
#pragma once

#include <atomic>

// Written by the signal handler, which may run on any thread. Read by the main thread once per pass and
// before every control request. Non-zero means quit.
extern std::atomic<int> quit_signals;
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler may not take a lock");

// Counts SIGINT, SIGTERM and SIGQUIT from now on. The tenth signal aborts the process, in case
// shutdown hangs.
void install_quit_handler();
