// What a stream's players go through when it gets another publisher. Main thread.
#pragma once

#include <cstddef>

#include "base/thread_roles.h"
#include "relay/stream_registry.h"

// Makes a connection the publisher of a stream that had none, or whose publisher has stalled, and resets its players.
void set_publisher(StreamRecord& record, std::size_t conn_idx) ON_MAIN_THREAD;

// Every player's timebase starts anew with the next packet. A player that has had media is dropped, since its decoder
// was set up by the old publisher.
void notify_time_reset(const StreamRecord& record) ON_MAIN_THREAD;
