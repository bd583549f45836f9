// The server from its first socket to its last: start-up, the 10 ms loop, shutdown. Main thread.
#pragma once

#include "base/thread_roles.h"

// Runs until the first quit signal. Returns the exit status: 0 after an orderly stop, 1 when the control
// socket or the listener could not be opened.
[[nodiscard]] int run_server() ON_MAIN_THREAD;
