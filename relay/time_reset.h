// What a stream's players go through when a new publisher takes its place. Main thread.
#pragma once

#include "base/thread_roles.h"
#include "relay/stream_registry.h"

// Called where a connection becomes the publisher of a record that had none. Every player's timebase starts
// anew with the next packet; a player that has had media is dropped, since its decoder was set up by the old
// publisher.
void notify_time_reset(const StreamRecord& record) ON_MAIN_THREAD;
