// The fixed table of connections: assigns slots and runs the main loop's pass over all connections.
//
// The table owns every connection. Main thread only.
#pragma once

#include <cstddef>

#include "base/thread_roles.h"

class RTMPConnection;

// The slot where the next search for a free one starts. Always below MAX_CONNECTIONS.
extern std::size_t connections_free_scan GUARDED_BY(MAIN_THREAD);

// Puts a connection for an accepted descriptor into a free slot and starts its threads. Returns null if fd is
// negative or no slot is free; the caller then still owns the descriptor. If a thread could not be created,
// returns the connection anyway: it fails ok() and is dropped on the same pass.
[[nodiscard]] RTMPConnection* new_connection(int fd, const char* address) ON_MAIN_THREAD;

// Returns the connection in slot i, or null. i must be below MAX_CONNECTIONS.
[[nodiscard]] RTMPConnection* get_connection(std::size_t i) ON_MAIN_THREAD;

// Closes and destroys the connection in slot i, if any. i must be below MAX_CONNECTIONS.
void free_connection(std::size_t i) ON_MAIN_THREAD;

// Frees every slot, in index order.
void free_all_connections() ON_MAIN_THREAD;

// Services slot i: calls idle() and drops the connection unless it is ok(). i must be below MAX_CONNECTIONS.
void idle_connection(std::size_t i) ON_MAIN_THREAD;

// Services every slot in index order, then removes at most one idle stream.
void idle_all_connections() ON_MAIN_THREAD;
