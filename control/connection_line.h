// One connection as the control socket lists it: seven fields, separated by TABs. Main thread.
#pragma once

#include <string>

#include "core/connection.h"

// Slot, stream name, stream mode, picture size ("1280x720", empty when unknown), bytes sent to the client,
// bytes received from it, address. The last three are empty when the connection's lock fails.
[[nodiscard]] std::string connection_line(RTMPConnection& conn) ON_MAIN_THREAD;
