// The RTMP listener: one IPv4 TCP socket on port 1935, from which the main loop accepts. Main thread only.
#pragma once

#include <netinet/in.h>

#include <string>

#include "base/thread_roles.h"

// The listening socket; -1 whenever it is closed. Nothing reopens it during the run.
extern int listen_fd GUARDED_BY(MAIN_THREAD);

// Creates, binds and listens. False after its own one line on standard error (none when no socket could be
// made); every connection slot has been freed then.
[[nodiscard]] bool open_listener() ON_MAIN_THREAD;

// open_listener() unless it is open already.
[[nodiscard]] bool ensure_listener() ON_MAIN_THREAD;

// Accepts at most one waiting client into the connection table; closes it again when the table is full.
void accept_connections() ON_MAIN_THREAD;

// Closes the listener and frees every connection.
void server_shutdown() ON_MAIN_THREAD;

// "192.0.2.7:50512", or empty when the address has no text.
[[nodiscard]] std::string peer_address_text(const sockaddr_in& peer);
