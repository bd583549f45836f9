// The control socket, through which other processes on the appliance greet the server, list its connections
// and drop them.
//
//   [open] --"Lost server socket", "Idle failed"--> [dead]      it is never reopened; the relay continues
//
// Serviced from the main loop at most every 100 ms. Main thread only.
#pragma once

#include "base/thread_roles.h"

// Creates the socket. On failure prints one line to standard error and returns false.
[[nodiscard]] bool start_control_server() ON_MAIN_THREAD;

// Services the socket if 100 ms have passed since the last time; called on every pass of the main loop.
// Accepts waiting clients, frees one that has disconnected, and answers requests: always the first one, then
// more until 64 have been answered or 50 ms have passed. The rest wait for the next time. While more than
// 64 MiB of replies are waiting, answers only one. A request is always handled completely, however long that
// takes. Then spends at most 20 ms, for all clients together, on sending the rest of the replies. Stops early
// after a quit signal.
void server_idle() ON_MAIN_THREAD;

// Closes the socket and frees everything that belongs to it. Does nothing if it is already closed.
void stop_control_server() ON_MAIN_THREAD;
