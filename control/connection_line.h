// One connection as the control socket lists it: seven fields, separated by TABs. Main thread.
#pragma once

#include <string>

#include "core/connection.h"

// Slot, stream name, stream mode, picture size ("1280x720", empty when unknown), bytes sent to the client,
// bytes received from it, address. The last three are empty when the connection's lock fails.
// Replaces what the line held before; one that is used again takes no new memory for a name of a megabyte.
void connection_line(RTMPConnection& conn, std::string* line) ON_MAIN_THREAD;
