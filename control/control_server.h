// The control socket: other processes of the appliance greet the server, list its connections and drop them.
//
//   [open] --"Lost server socket", "Idle failed"--> [dead]      nothing reopens it; the relay goes on without
//
// Serviced from the main loop at most every 100 ms. Main thread only.
#pragma once

#include "base/thread_roles.h"

// Creates the socket. False after one line on standard error.
[[nodiscard]] bool start_control_server() ON_MAIN_THREAD;

// One pass of the main loop: accepts a client and answers what was asked since the last service, each request
// to its end. Stops early once a quit signal has come.
void server_idle() ON_MAIN_THREAD;

// Closes the socket with everything it holds; harmless when it is dead already.
void stop_control_server() ON_MAIN_THREAD;
