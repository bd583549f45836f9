// What the reader thread of a connection does.
#pragma once

#include "core/connection.h"

// The handshake, then messages until the client closes or breaks a rule. No stop request is looked at: cancellation
// ends it as well.
void read_session(RTMPConnection& conn) ON_READER_THREAD;
