// The control socket, through which other processes on the appliance greet the server, list its connections
// and drop them.
//
//   [open] --"Lost server socket", "Idle failed"--> [dead]      it is never reopened; the relay continues
//
// The main loop services it in rounds, at least 100 ms apart. Main thread only.
#pragma once

#include "base/thread_roles.h"

// Creates the socket. On failure prints one line to standard error and returns false.
[[nodiscard]] bool start_control_server() ON_MAIN_THREAD;

// Runs a round if at least 100 ms have passed since the last one; called on every pass of the main loop. A
// round accepts waiting clients, frees one that has disconnected, and answers requests: always the first one,
// then more until 64 have been answered or 50 ms have passed. The rest wait for the next round. While more
// than 64 MiB of replies are waiting, it answers only one. A request is always handled completely, however
// long that takes. At its end, the round sends waiting replies for at most 20 ms for all clients together. It
// stops early after a quit signal.
void server_idle() ON_MAIN_THREAD;

// Closes the socket and frees everything that belongs to it. Does nothing if it is already closed.
void stop_control_server() ON_MAIN_THREAD;
