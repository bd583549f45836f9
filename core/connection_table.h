// The fixed table of connections: who gets which slot, and the main loop's pass over all of them.
//
// The table owns every connection. Main thread only.
#pragma once

#include <cstddef>

#include "base/thread_roles.h"

class RTMPConnection;

// Slot at which the next search for a free one starts; always below MAX_CONNECTIONS.
extern std::size_t connections_free_scan GUARDED_BY(MAIN_THREAD);

// Puts a connection for an accepted descriptor into a free slot and starts its threads. Null, with the
// descriptor still the caller's, when fd is negative or no slot is free. A connection whose threads could not
// be created is returned all the same: it fails ok() and is dropped on the same pass.
[[nodiscard]] RTMPConnection* new_connection(int fd, const char* address) ON_MAIN_THREAD;

// The connection in slot i, or null. i must be below MAX_CONNECTIONS.
[[nodiscard]] RTMPConnection* get_connection(std::size_t i) ON_MAIN_THREAD;

// Closes and destroys the connection in slot i, if there is one. i must be below MAX_CONNECTIONS.
void free_connection(std::size_t i) ON_MAIN_THREAD;

// Frees every slot, in index order.
void free_all_connections() ON_MAIN_THREAD;

// Services slot i: its idle(), then drops it unless it is ok(). i must be below MAX_CONNECTIONS.
void idle_connection(std::size_t i) ON_MAIN_THREAD;

// Services every slot in index order, then disposes of at most one old stream.
void idle_all_connections() ON_MAIN_THREAD;
