// Start-up, the 10 ms main loop and shutdown of the server. Main thread.
#pragma once

#include "base/thread_roles.h"

// Runs until the first quit signal. Returns the exit status: 0 after an orderly shutdown, 1 if the control
// socket or the listener could not be opened.
[[nodiscard]] int run_server() ON_MAIN_THREAD;
