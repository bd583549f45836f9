// Metrics in the text format of Prometheus. Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/v9_rtmp_ctl/connection_history.h"
#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/process_info.h"
#include "tools/v9_rtmp_ctl/stream_series.h"
#include "tools/v9_rtmp_ctl/watchdog_statistics.h"

// An absent value has no metrics.
struct MetricsSource {
    std::vector<Connection> connections;  // of the last listing; empty while the server does not answer
    std::optional<double> round_trip_s;   // for that listing; empty while the server does not answer
    ProcessInfo process;                  // of the server
    const ConnectionHistory* history = nullptr;  // null: only one listing
    const StreamSeries* series = nullptr;        // set with history
    std::optional<WatchdogStatistics> watchdog;
    std::optional<std::int64_t> polled_unix_seconds;
};

// Ends with a newline.
[[nodiscard]] std::string metrics_text(const MetricsSource& source);

// Escapes a label's value for use between quotes.
[[nodiscard]] std::string escape_label(std::string_view value);
