// The data of the status page, as JSON and as a table for browsers without script. Pure.
#pragma once

#include <string>

#include "tools/v9_rtmp_ctl/monitor.h"

struct StatusFacts {
    bool allows_drop = false;
    double time_s = 0;  // since the epoch
};

// Returns the document that the page polls; the manual page describes it. Long stream names are cut.
[[nodiscard]] std::string status_json(const MonitorView& view, const StatusFacts& facts);

// Returns HTML: what is wrong, or a table of the connections.
[[nodiscard]] std::string status_table(const MonitorView& view);
