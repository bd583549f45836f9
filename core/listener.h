// The RTMP listener: one IPv4 TCP socket on port 1935, from which the main loop accepts. Main thread only.
#pragma once

#include <netinet/in.h>

#include <string>

#include "base/thread_roles.h"

// The listening socket; -1 while it is closed. Never reopened while the server runs.
extern int listen_fd GUARDED_BY(MAIN_THREAD);

// Opens the listening socket. On failure prints one line to standard error (none if the socket could not be
// created), frees every connection slot and returns false.
[[nodiscard]] bool open_listener() ON_MAIN_THREAD;

// Calls open_listener() unless the socket is already open.
[[nodiscard]] bool ensure_listener() ON_MAIN_THREAD;

// Accepts at most one waiting client into the connection table. Closes its socket if the table is full.
void accept_connections() ON_MAIN_THREAD;

// Closes the listener and frees every connection.
void server_shutdown() ON_MAIN_THREAD;

// Returns text like "192.0.2.7:50512", or empty text if the address cannot be formatted.
[[nodiscard]] std::string peer_address_text(const sockaddr_in& peer);
