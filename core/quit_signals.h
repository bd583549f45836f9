// How often the process has been told to stop.
#pragma once

#include <atomic>

// Written by the signal handler, which may run on any thread; read by the main thread, once per pass and
// before every control request. Non-zero means quit.
extern std::atomic<int> quit_signals;
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler may not take a lock");

// Makes SIGINT, SIGTERM and SIGQUIT count. The tenth signal aborts a process that is stuck while stopping.
void install_quit_handler();
