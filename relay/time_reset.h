// Resets a stream's players when the stream gets another publisher. Main thread.
#pragma once

#include <cstddef>

#include "base/thread_roles.h"
#include "relay/stream_registry.h"

// Makes a connection the publisher of a stream and resets the players. Call if there is no publisher or the
// current one has stalled.
void set_publisher(StreamRecord& record, std::size_t conn_idx) ON_MAIN_THREAD;

// Restarts every player's timebase with the next packet. Drops a player that has received media, because its
// decoder is set up for the old publisher.
void notify_time_reset(const StreamRecord& record) ON_MAIN_THREAD;
