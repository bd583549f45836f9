#include "tools/v9_rtmp_ctl/metrics_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <map>
#include <utility>

#include "tools/v9_rtmp_ctl/stream_health.h"
#include "tools/v9_rtmp_ctl/time_units.h"
#include "tools/v9_rtmp_ctl/watchdog_rules.h"

namespace {

using Labels = std::vector<std::pair<std::string, std::string>>;

double seconds(std::uint64_t us) {
    return static_cast<double>(us) / US_PER_SECOND;
}

class Writer {
  public:
    // Begins a metric. All following samples belong to it.
    Writer& begin(const char* metric_name, const char* type, const char* help) {
        name = metric_name;
        text += "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
        return *this;
    }
    Writer& gauge(const char* metric_name, const char* help) { return begin(metric_name, "gauge", help); }
    Writer& counter(const char* metric_name, const char* help) { return begin(metric_name, "counter", help); }

    template <typename Number>
    Writer& sample(const Labels& labels, Number value) {
        text += name;
        const char* separator = "{";
        for (const auto& [label, label_value] : labels) {
            text += separator + label + "=\"" + escape_label(label_value) + "\"";
            separator = ",";
        }
        text += labels.empty() ? " " : "} ";
        std::array<char, 64> digits{};
        const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), value);
        text.append(digits.data(), result.ptr);
        text += '\n';
        return *this;
    }

    template <typename Number>
    void gauge_if(const char* metric_name, const char* help, const std::optional<Number>& value) {
        if (value) {
            gauge(metric_name, help).sample({}, *value);
        }
    }

    [[nodiscard]] std::string take() { return std::move(text); }

  private:
    std::string text;
    std::string name;
};

void write_connections(Writer& writer, const std::vector<Connection>& connections) {
    const auto count = [&connections](const char* mode) {
        return std::count_if(connections.begin(), connections.end(),
                             [mode](const Connection& c) { return c.mode == mode; });
    };
    writer.gauge("v9_rtmp_slots", "Maximum number of connections.").sample({}, SLOT_COUNT);
    writer.gauge("v9_rtmp_connections", "Connections by mode; none: no stream chosen yet.")
        .sample({{"mode", "publish"}}, count("publish"))
        .sample({{"mode", "play"}}, count("play"))
        .sample({{"mode", "none"}}, count(""));
}

void write_streams(Writer& writer, const MetricsSource& source) {
    std::map<StreamState, unsigned> states;
    for (const auto& [name, state] : stream_states(source.connections, source.history)) {
        ++states[state];
    }
    writer.gauge("v9_rtmp_streams",
                 "Stream names by state: live, silent (the publisher sends nothing) or waiting (there is no "
                 "publisher).");
    for (const StreamState state : {StreamState::LIVE, StreamState::SILENT, StreamState::WAITING}) {
        writer.sample({{"state", state_text(state)}}, states[state]);
    }
}

// Writes a sample for each listed stream, and one for all others together.
template <typename Value>
void write_totals(Writer& writer, const StreamSeries& series, const Value& value) {
    for (const auto& [label, totals] : series.listed()) {
        writer.sample({{"stream", label}}, value(totals));
    }
    writer.sample({{"stream", OTHER_STREAMS}}, value(series.other()));
}

void write_counters(Writer& writer, const StreamSeries& series) {
    writer.counter("v9_rtmp_stream_received_bytes_total",
                   "Bytes received from the publishers of a stream. (other) counts all streams without their "
                   "own series.");
    write_totals(writer, series, [](const StreamTotals& t) { return t.bytes_received; });
    writer.counter("v9_rtmp_stream_sent_bytes_total", "Bytes sent to the players of a stream.");
    write_totals(writer, series, [](const StreamTotals& t) { return t.bytes_sent; });
    writer.counter(
        "v9_rtmp_player_stall_seconds_total",
        "Seconds that players of a stream were stalled while it continued, summed over the players.");
    write_totals(writer, series, [](const StreamTotals& t) { return seconds(t.player_stall_us); });
    writer.counter("v9_rtmp_publisher_silence_seconds_total",
                   "Seconds that publishers of a stream sent nothing, summed over the publishers.");
    write_totals(writer, series, [](const StreamTotals& t) { return seconds(t.publisher_silence_us); });
}

void write_health(Writer& writer, const ConnectionHistory& history) {
    std::uint64_t oldest_us = 0;
    unsigned stalled = 0;
    unsigned behind = 0;
    for (const ClientRecord& record : history.clients()) {
        const ClientHealth health = client_health(history, record);
        if (record.connection.mode == "play") {
            oldest_us = std::max(oldest_us, health.age_us);
        }
        stalled += health.is_stalled ? 1 : 0;
        behind += health.behind_us >= BEHIND_AFTER_US ? 1 : 0;
    }
    writer.gauge(
        "v9_rtmp_oldest_player_seconds",
        "Age of the oldest player. Most players break at 16777 seconds, when timestamps exceed 24 bits.");
    writer.sample({}, seconds(oldest_us));
    writer.gauge("v9_rtmp_stalled_players", "Players that are stalled while their stream continues.")
        .sample({}, stalled);
    writer.gauge("v9_rtmp_behind_players", "Players that are at least 5 seconds behind their stream.")
        .sample({}, behind);
}

void write_players(Writer& writer, const MetricsSource& source) {
    std::map<std::string, unsigned> players;
    unsigned other_players = 0;
    for (const auto& [label, totals] : source.series->listed()) {
        players[label] = 0;
    }
    for (const Connection& connection : source.connections) {
        if (connection.mode != "play") {
            continue;
        }
        const auto found = players.find(stream_label(connection.stream));
        ++(found == players.end() ? other_players : found->second);
    }
    writer.gauge("v9_rtmp_stream_players", "Players of a stream.");
    for (const auto& [label, count] : players) {
        writer.sample({{"stream", label}}, count);
    }
    writer.sample({{"stream", OTHER_STREAMS}}, other_players);
}

void write_watchdog(Writer& writer, const WatchdogStatistics& statistics) {
    const auto each_rule = [&](const auto& count) {
        for (const auto& [rule, counts] : statistics.rules) {
            writer.sample({{"rule", rule_name(rule)}}, count(counts));
        }
    };
    writer.counter("v9_rtmp_watchdog_drops_total", "Connections that the watchdog has dropped.");
    each_rule([](const RuleCounts& counts) { return counts.drops; });
    writer.counter("v9_rtmp_watchdog_misses_total",
                   "Drops by the watchdog that hit, or may have hit, another client.");
    each_rule([](const RuleCounts& counts) { return counts.misses; });
    if (statistics.running) {
        writer.gauge("v9_rtmp_watchdog_updated_timestamp_seconds",
                     "Time of the watchdog's last write of its statistics, since the epoch. Absent once it "
                     "has been stopped.");
        writer.sample({}, statistics.updated_unix_seconds);
    }
}

void write_process(Writer& writer, const ProcessInfo& process) {
    if (process.cpu_seconds) {
        writer.counter("v9_rtmp_server_cpu_seconds_total", "CPU time that the server has used.")
            .sample({}, *process.cpu_seconds);
    }
    writer.gauge_if("v9_rtmp_server_resident_memory_bytes", "Resident memory of the server.",
                    process.resident_bytes);
    writer.gauge_if("v9_rtmp_server_virtual_memory_bytes", "Address space of the server.",
                    process.virtual_bytes);
    writer.gauge_if("v9_rtmp_server_threads", "Threads of the server, two for each connection and one more.",
                    process.threads);
    writer.gauge_if("v9_rtmp_server_open_fds", "Open descriptors of the server.", process.open_descriptors);
    writer.gauge_if("v9_rtmp_server_max_fds", "Descriptors that the server may open.",
                    process.max_descriptors);
    writer.gauge_if("v9_rtmp_server_start_time_seconds", "Start time of the server, since the epoch.",
                    process.start_time_s);
}

}  // namespace

std::string escape_label(std::string_view value) {
    std::string escaped;
    for (const char c : value) {
        if (c == '\n') {
            escaped += "\\n";
            continue;
        }
        if (c == '\\' || c == '"') {
            escaped += '\\';
        }
        escaped += c;
    }
    return escaped;
}

std::string metrics_text(const MetricsSource& source) {
    Writer writer;
    const bool is_up = source.round_trip_s.has_value();
    writer.gauge("v9_rtmp_up", "Whether the server answers on its control socket.").sample({}, is_up ? 1 : 0);
    writer.gauge_if("v9_rtmp_polled_timestamp_seconds",
                    "Time of the last poll of the server, answered or not, since the epoch.",
                    source.polled_unix_seconds);
    if (is_up) {
        writer.gauge_if("v9_rtmp_control_round_trip_seconds",
                        "Time from requesting the listing to receiving all of it; up to 0.1 is usual.",
                        source.round_trip_s);
        write_connections(writer, source.connections);
        write_streams(writer, source);
    }
    if (source.history != nullptr && source.series != nullptr) {
        write_counters(writer, *source.series);
        // Values from before the server stopped answering are out of date.
        if (is_up) {
            write_health(writer, *source.history);
            write_players(writer, source);
        }
    }
    if (source.watchdog) {
        write_watchdog(writer, *source.watchdog);
    }
    write_process(writer, source.process);
    return writer.take();
}
