// Formats a connection for the control socket's list: seven fields separated by TABs. Main thread.
#pragma once

#include <string>

#include "core/connection.h"

// A line in three parts. The stream name may be a megabyte long, so it is shared with the connection,
// not copied.
struct ConnectionLine {
    std::string before_name;
    SharedText stream_name;
    std::string after_name;
};

// Formats slot, stream name, stream mode, picture size ("1280x720", empty if unknown), bytes sent to the
// client, bytes received from it, and address. The last three are empty if the connection's lock fails.
[[nodiscard]] ConnectionLine connection_line(RTMPConnection& conn) ON_MAIN_THREAD;
