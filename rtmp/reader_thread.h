// The work of a connection's reader thread.
#pragma once

#include "core/connection.h"

// Does the handshake, then reads messages until the client closes the connection or sends something that the
// server does not accept. Does not check for a stop request: the main thread cancels the thread instead.
void read_session(RTMPConnection& conn) ON_READER_THREAD;
