// Polls the server and keeps the combined results for metrics and the status page. Used by one thread at
// a time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/v9_rtmp_ctl/connection_history.h"
#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/process_info.h"
#include "tools/v9_rtmp_ctl/rate_history.h"
#include "tools/v9_rtmp_ctl/stream_series.h"
#include "tools/v9_rtmp_ctl/time_units.h"
#include "tools/v9_rtmp_ctl/watchdog_statistics.h"

// The state after a poll.
struct MonitorView {
    std::optional<std::int64_t> polled_unix_seconds;  // empty before the first poll
    std::optional<Failure> failure;                   // empty: the server answered
    Listing listing;  // with rates since the previous poll; empty after a failure
    std::uint64_t round_trip_us = 0;
    ProcessInfo process;
    ConnectionHistory history;
    StreamSeries series;
    RateHistory rates;
    std::optional<WatchdogStatistics> watchdog;  // from its file
};

// The settings of a history whose listings come once every interval_us.
[[nodiscard]] HistoryTimes times_between_polls(std::uint64_t interval_us);

class Monitor {
  public:
    // A watchdog's state directory holds its statistics, and the ages of clients it saw before this object
    // existed. Stream counters begin at 0 with the first poll. Earlier counts are not used: if one were lower
    // than the value last exported, Prometheus would see a counter reset and count it all again.
    Monitor(const std::string& socket_path, std::uint64_t silence_us, std::string watchdog_state,
            std::uint64_t interval_us = US_PER_SECOND);

    // Requests a listing. Takes at most as long as ControlClient waits.
    void poll();

    [[nodiscard]] const MonitorView& view() const { return current; }

  private:
    void read_watchdog();

    const std::string state;
    ControlClient client;
    MonitorView current;
    bool has_polled = false;  // a poll has succeeded
};

// Metrics of all polls so far, or of the last listing alone.
enum class MetricsSpan { ALL_POLLS, ONE_POLL };
[[nodiscard]] std::string metrics_of(const MonitorView& view, MetricsSpan span);
