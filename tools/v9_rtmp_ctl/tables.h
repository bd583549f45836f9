// The tables that people see: connections and streams. Pure.
#pragma once

#include <vector>

#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/stream_summary.h"
#include "tools/v9_rtmp_ctl/table.h"

// Totals since each connection began.
[[nodiscard]] Table connection_table(const std::vector<Connection>& connections);

// Rates instead, and no picture size: this one fits into 80 columns beside addresses.
[[nodiscard]] Table connection_rate_table(const std::vector<Connection>& connections);

[[nodiscard]] Table stream_table(const std::vector<StreamSummary>& streams);
