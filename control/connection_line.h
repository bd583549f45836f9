// Formats a connection for the control socket's list: seven fields separated by TABs. Main thread.
#pragma once

#include <string>

#include "core/connection.h"

// Writes slot, stream name, stream mode, picture size ("1280x720", empty if unknown), bytes sent to the
// client, bytes received from it, and address. The last three are empty if the connection's lock fails.
// Replaces the contents of line. Callers reuse one line for a whole list, so that a name of a megabyte is not
// allocated each time.
void connection_line(RTMPConnection& conn, std::string* line) ON_MAIN_THREAD;
