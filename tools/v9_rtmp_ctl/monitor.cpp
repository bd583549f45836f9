#include "tools/v9_rtmp_ctl/monitor.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include "tools/v9_rtmp_ctl/metrics_text.h"
#include "tools/v9_rtmp_ctl/port_check.h"
#include "tools/v9_rtmp_ctl/state_file.h"

HistoryTimes times_between_polls(std::uint64_t interval_us) {
    HistoryTimes times;
    times.longest_gap_us = std::max(times.longest_gap_us, 5 * interval_us);
    times.window_us = std::max(times.window_us, 5 * interval_us);
    return times;
}

Monitor::Monitor(const std::string& socket_path, std::uint64_t silence_us, std::string watchdog_state,
                 std::uint64_t interval_us)
    : state(std::move(watchdog_state)), client(socket_path, silence_us) {
    current.history = ConnectionHistory(times_between_polls(interval_us));
    const std::optional<std::string> history = read_file(state + "/" + WATCHDOG_HISTORY_FILE);
    // If this fails, the history begins now.
    static_cast<void>(history && current.history.restore(*history, boot_id()));
}

void Monitor::read_watchdog() {
    const std::optional<std::string> text = read_file(state + "/" + WATCHDOG_STATISTICS_FILE);
    current.watchdog = text ? parse_statistics(*text) : std::nullopt;
}

void Monitor::poll() {
    current.polled_unix_seconds = std::time(nullptr);
    read_watchdog();
    const Listing before = std::exchange(current.listing, {});
    current.process = {};
    current.failure = client.connect();
    const std::uint64_t asked_us = clock_us();
    if (!current.failure) {
        current.failure = take_listing(client, "", current.listing, ConnectionHistory::MAX_NAME_BYTES);
    }
    if (current.failure) {
        // The next poll may find another server.
        client.disconnect();
        current.listing = {};
        return;
    }
    current.round_trip_us = current.listing.taken_us - asked_us;
    current.process = find_process_info(find_peer(client.fd()).value_or(Peer()).pid);
    add_rates(before, current.listing);
    current.history.take_in(current.listing);
    if (!std::exchange(has_polled, true)) {
        // Bytes the clients transferred before the first poll are not counted.
        current.series.begin(current.history);
    }
    current.series.take_in(current.history);
    current.rates.take_in(current.history);
}

std::string metrics_of(const MonitorView& view, MetricsSpan span) {
    MetricsSource source;
    if (!view.failure) {
        source.connections = view.listing.connections;
        source.round_trip_s = static_cast<double>(view.round_trip_us) / 1e6;
    }
    source.process = view.process;
    source.watchdog = view.watchdog;
    source.polled_unix_seconds = view.polled_unix_seconds;
    if (span == MetricsSpan::ALL_POLLS) {
        source.history = &view.history;
        source.series = &view.series;
    }
    return metrics_text(source);
}
