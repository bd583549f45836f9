// Looks at the server again and again, and keeps what the looks show together: for metrics and for the status
// page. Used by one thread at a time.
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

// All that is known after a look.
struct MonitorView {
    std::optional<Failure> failure;  // nothing: the server answered
    Listing listing;                 // with rates since the look before; empty after a failure
    std::uint64_t round_trip_us = 0;
    ProcessInfo process;
    ConnectionHistory history;
    StreamSeries series;
    RateHistory rates;
    std::optional<WatchdogStatistics> watchdog;  // what its file says
};

// What a history needs to know of looks that come once in interval_us.
[[nodiscard]] HistoryTimes times_between_looks(std::uint64_t interval_us);

class Monitor {
  public:
    // A watchdog's state directory has its statistics, and the ages of clients that it saw before this began.
    // Counters of streams begin at 0 with the first look. What a watchdog or the clients have counted before
    // can be less than an earlier program has shown, and then all of it would be counted again.
    Monitor(const std::string& socket_path, std::uint64_t silence_us, std::string watchdog_state,
            std::uint64_t interval_us = US_PER_SECOND);

    // Asks for a listing, which takes as long as ControlClient waits at most.
    void look();

    [[nodiscard]] const MonitorView& view() const { return current; }

  private:
    void read_watchdog();

    const std::string state;
    ControlClient client;
    MonitorView current;
    bool has_looked = false;  // with success
};

// Metrics of one view, or of its listing alone.
enum class MetricsSpan { ALL_LOOKS, ONE_LOOK };
[[nodiscard]] std::string metrics_of(const MonitorView& view, MetricsSpan span);
