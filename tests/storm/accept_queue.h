// How a storm of clients connects: the kernel queues few connections for the server, and whoever finds that
// queue full tries again a second later, which would measure the kernel's patience instead of the server.
#pragma once

#include "tests/support/rtmp_client.h"

// Connects once the queue has room. Threads take turns. Throws TestFailure when the queue stays full or
// nobody listens.
RtmpClient connect_through_queue(const ClientOptions& options = {});

// The server has accepted everybody who has connected so far.
void wait_for_empty_accept_queue(Milliseconds wait = DEFAULT_WAIT);

// Connections whose end on the server's port the kernel keeps after its process is gone or has closed them.
std::size_t connections_left_to_the_kernel();
