// The control socket: other processes of the appliance greet the server, list its connections and drop them.
//
//   [open] --"Lost server socket", "Idle failed"--> [dead]      nothing reopens it; the relay goes on without
//
// Serviced from the main loop at most every 100 ms. Main thread only.
#pragma once

#include "base/thread_roles.h"

// Creates the socket. False after one line on standard error.
[[nodiscard]] bool start_control_server() ON_MAIN_THREAD;

// One pass of the main loop. Once 100 ms have passed since the last service, it accepts a client, frees one that has gone
// and answers what was asked: at most 64 requests, and none after 50 ms but the first; what is left has to wait for the
// next service. While more than 64 MiB of replies wait it answers one. A request is carried out to its end, however long
// that takes. Then it goes on sending replies that their sockets did not take whole, for at most 20 ms for all clients
// together. Stops early once a quit signal has come.
void server_idle() ON_MAIN_THREAD;

// Closes the socket with everything it holds; harmless when it is dead already.
void stop_control_server() ON_MAIN_THREAD;
