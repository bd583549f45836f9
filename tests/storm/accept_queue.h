// How a storm of clients connects. The kernel queues few connections for the server, and a client that finds
// the queue full tries again a second later, which would measure the kernel instead of the server.
#pragma once

#include <cstddef>

#include "tests/support/rtmp_client.h"

// Connects once the queue has room. Threads take turns. Throws TestFailure if the queue stays full or nothing
// listens on the port.
RtmpClient connect_through_queue(const ClientOptions& options = {});

// Waits until at most this many connections are not yet accepted.
void wait_for_accept_queue(std::size_t most_waiting);
