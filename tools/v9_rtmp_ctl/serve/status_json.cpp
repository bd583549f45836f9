#include "tools/v9_rtmp_ctl/serve/status_json.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <utility>

#include "tools/v9_rtmp_ctl/connection_history.h"
#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/json_objects.h"
#include "tools/v9_rtmp_ctl/process_info.h"
#include "tools/v9_rtmp_ctl/rate_history.h"
#include "tools/v9_rtmp_ctl/serve/http_rules.h"
#include "tools/v9_rtmp_ctl/stream_health.h"
#include "tools/v9_rtmp_ctl/stream_series.h"
#include "tools/v9_rtmp_ctl/stream_summary.h"
#include "tools/v9_rtmp_ctl/text.h"
#include "tools/v9_rtmp_ctl/time_units.h"
#include "tools/v9_rtmp_ctl/watchdog_rules.h"
#include "tools/v9_rtmp_ctl/watchdog_statistics.h"

namespace {

// Every viewer gets the names every second. Monitor has already cut them to about this length.
constexpr std::size_t MAX_NAME_BYTES = ConnectionHistory::MAX_NAME_BYTES;

std::string cut_name(const std::string& name) {
    if (name.size() <= MAX_NAME_BYTES) {
        return name;
    }
    std::size_t length = MAX_NAME_BYTES;
    // Do not cut within a character.
    while (length > 0 && (static_cast<unsigned char>(name[length]) & 0xC0U) == 0x80) {
        --length;
    }
    return name.substr(0, length) + "\u2026";
}

std::string short_label(const std::string& name) {
    return stream_label(cut_name(name));
}

Json whole_seconds(std::uint64_t us) {
    return us / US_PER_SECOND;
}

Json connection_status(const ConnectionHistory& history, const Connection& connection) {
    Connection cut = connection;
    cut.stream = cut_name(connection.stream);
    Json object = connection_object(cut, RateUnit::BYTES);
    const ClientRecord* const record = find_client(history.clients(), connection.id);
    const ClientHealth health = record == nullptr ? ClientHealth() : client_health(history, *record);
    object["age_seconds"] = whole_seconds(health.age_us);
    object["still_seconds"] = whole_seconds(health.still_us);
    object["stalled"] = health.is_stalled;
    object["behind"] = health.behind_us >= BEHIND_AFTER_US;
    object["behind_seconds"] = whole_seconds(health.behind_us);
    object["near_limit"] = health.is_near_limit;
    return object;
}

void add_history(Json& object, const std::deque<RatePoint>& points) {
    Json in = Json::array();
    Json out = Json::array();
    for (const RatePoint& point : points) {
        in.push_back(std::llround(point.in));
        out.push_back(std::llround(point.out));
    }
    object["history_in"] = std::move(in);
    object["history_out"] = std::move(out);
}

// Returns how long the publisher that sent most recently has been silent. 0 if there is none.
std::uint64_t silence_us(const ConnectionHistory& history, const std::string& stream) {
    std::optional<std::uint64_t> silence;
    for (const ClientRecord& record : history.clients()) {
        if (record.connection.stream == stream && record.connection.mode == "publish") {
            const std::uint64_t still = still_us(history, record.received);
            silence = std::min(silence.value_or(still), still);
        }
    }
    return silence.value_or(0);
}

Json stream_array(const MonitorView& view) {
    const std::map<std::string, StreamState> states = stream_states(view.listing.connections, &view.history);
    Json array = Json::array();
    for (const StreamSummary& summary : summarize_streams(view.listing.connections, {}, SortKey::STREAM)) {
        StreamSummary cut = summary;
        cut.stream = cut_name(summary.stream);
        Json object = stream_object(cut, RateUnit::BYTES);
        // Two different names may look the same.
        object["key"] = std::to_string(std::hash<std::string>()(summary.stream));
        const auto state = states.find(summary.stream);
        object["state"] = state_text(state == states.end() ? StreamState::WAITING : state->second);
        object["silence_seconds"] = whole_seconds(silence_us(view.history, summary.stream));
        const auto points = view.rates.streams().find(summary.stream);
        add_history(object, points == view.rates.streams().end() ? std::deque<RatePoint>() : points->second);
        array.push_back(std::move(object));
    }
    return array;
}

Json total_object(const MonitorView& view) {
    double in = 0;
    double out = 0;
    for (const Connection& connection : view.listing.connections) {
        in += connection.received_rate.value_or(0);
        out += connection.sent_rate.value_or(0);
    }
    Json object{{"bytes_in_per_second", std::llround(in)}, {"bytes_out_per_second", std::llround(out)}};
    add_history(object, view.rates.total());
    return object;
}

Json process_object(const ProcessInfo& process) {
    return {{"cpu_seconds", number_or_null(process.cpu_seconds)},
            {"resident_bytes", number_or_null(process.resident_bytes)},
            {"threads", number_or_null(process.threads)},
            {"open_descriptors", number_or_null(process.open_descriptors)},
            {"max_descriptors", number_or_null(process.max_descriptors)},
            {"start_time", number_or_null(process.start_time_s)}};
}

Json drops_object(const std::optional<WatchdogStatistics>& statistics) {
    if (!statistics) {
        return nullptr;
    }
    Json drops = Json::object();
    for (const auto& [rule, counts] : statistics->rules) {
        drops[rule_name(rule)] = counts.drops;
    }
    return drops;
}

std::string cell(const std::string& text) {
    return "<td>" + escape_html(text) + "</td>";
}

}  // namespace

std::string status_json(const MonitorView& view, const StatusFacts& facts) {
    Json connections = Json::array();
    for (const Connection& connection : view.listing.connections) {
        connections.push_back(connection_status(view.history, connection));
    }
    const bool running = !view.failure;
    return dump(
        {{"running", running},
         {"message", running ? Json(nullptr) : Json(view.failure->message)},
         {"time", facts.time_s},
         {"allows_drop", facts.allows_drop},
         {"round_trip_ms", running ? Json(static_cast<double>(view.round_trip_us) / 1000) : Json(nullptr)},
         {"slots", SLOT_COUNT},
         {"limit_seconds", whole_seconds(TIMESTAMP_LIMIT_US)},
         {"step_seconds", whole_seconds(RateHistory::STEP_US)},
         {"server", process_object(view.process)},
         {"drops", drops_object(view.watchdog)},
         {"total", total_object(view)},
         {"streams", running ? stream_array(view) : Json::array()},
         {"connections", std::move(connections)}});
}

std::string status_table(const MonitorView& view) {
    if (view.failure) {
        return "<p>" + escape_html(view.failure->message) + "</p>";
    }
    std::string table = "<p>" + std::to_string(view.listing.connections.size()) + " of " +
                        std::to_string(SLOT_COUNT) +
                        " slots are used.</p>\n<div class=\"card "
                        "wide\"><table>\n<thead><tr><th>Id</th><th>Stream</th><th>Mode</th>"
                        "<th>Size</th><th>Address</th><th>In</th><th>Out</th></tr></thead>\n<tbody>\n";
    for (const Connection& connection : view.listing.connections) {
        table += "<tr>" + cell(std::to_string(connection.id)) + "<td class=\"name\">" +
                 escape_html(short_label(connection.stream)) + "</td>" + cell(connection.mode) +
                 cell(size_text(connection.size)) + cell(stream_label(connection.address)) +
                 cell(format_rate(connection.received_rate, RateUnit::BITS)) +
                 cell(format_rate(connection.sent_rate, RateUnit::BITS)) + "</tr>\n";
    }
    return table + "</tbody></table></div>";
}
