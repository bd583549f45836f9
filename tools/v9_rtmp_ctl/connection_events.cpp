#include "tools/v9_rtmp_ctl/connection_events.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

#include "tools/v9_rtmp_ctl/drop_rules.h"
#include "tools/v9_rtmp_ctl/json_forms.h"
#include "tools/v9_rtmp_ctl/stream_summary.h"
#include "tools/v9_rtmp_ctl/text.h"
#include "tools/v9_rtmp_ctl/time_units.h"

namespace {

constexpr std::size_t MAX_NAME_BYTES = 1024;

// Whether both are the same client, by the rules of the history.
bool is_same_record(const ClientRecord& a, const ClientRecord& b) {
    return a.connection.id == b.connection.id && a.first_seen_us == b.first_seen_us &&
           a.connection.address == b.connection.address;
}

const ClientRecord* find_record(const std::vector<ClientRecord>& records, const ClientRecord& wanted) {
    const auto found = std::find_if(records.begin(), records.end(),
                                    [&wanted](const ClientRecord& r) { return is_same_record(r, wanted); });
    return found == records.end() ? nullptr : &*found;
}

std::vector<Connection> connections_of(const std::vector<ClientRecord>& records) {
    std::vector<Connection> connections;
    connections.reserve(records.size());
    for (const ClientRecord& record : records) {
        connections.push_back(record.connection);
    }
    return connections;
}

std::string number_text(const std::optional<std::uint64_t>& number) {
    return number ? std::to_string(*number) : std::string();
}

std::optional<std::uint64_t> seconds_of(const std::optional<std::uint64_t>& us) {
    return us ? std::optional(*us / US_PER_SECOND) : std::nullopt;
}

}  // namespace

const char* event_name(EventKind kind) {
    switch (kind) {
        case EventKind::CONNECT:
            return "connect";
        case EventKind::PUBLISH:
            return "publish";
        case EventKind::PLAY:
            return "play";
        case EventKind::TAKEOVER:
            return "takeover";
        case EventKind::GONE:
            return "gone";
    }
    return "";
}

std::vector<ConnectionEvent> EventWatch::take_in(const Listing& listing) {
    const std::vector<ClientRecord> before = history.clients();
    history.take_in(listing);
    std::vector<ConnectionEvent> events;
    if (!is_first) {
        add_gone(before, events);
        add_new(before, events);
    }
    is_first = false;
    follow_publishers(events);
    return events;
}

void EventWatch::add_gone(const std::vector<ClientRecord>& before,
                          std::vector<ConnectionEvent>& events) const {
    for (const ClientRecord& record : before) {
        if (find_record(history.clients(), record) == nullptr) {
            events.push_back(
                {EventKind::GONE, record.connection, std::nullopt, history.now_us() - record.first_seen_us});
        }
    }
}

void EventWatch::add_new(const std::vector<ClientRecord>& before,
                         std::vector<ConnectionEvent>& events) const {
    for (const ClientRecord& record : history.clients()) {
        const ClientRecord* const known = find_record(before, record);
        if (known == nullptr) {
            events.push_back({EventKind::CONNECT, record.connection, std::nullopt, std::nullopt});
        }
        const std::string& mode = record.connection.mode;
        if (!mode.empty() && (known == nullptr || known->connection.mode.empty())) {
            const EventKind kind = mode == "publish" ? EventKind::PUBLISH : EventKind::PLAY;
            events.push_back({kind, record.connection, std::nullopt, std::nullopt});
        }
    }
}

void EventWatch::follow_publishers(std::vector<ConnectionEvent>& events) {
    const std::vector<Connection> connections = connections_of(history.clients());
    std::map<std::string, Connection> now;
    for (const StreamSummary& stream : summarize_streams(connections, {}, SortKey::STREAM)) {
        if (!stream.publisher_id) {
            continue;
        }
        const auto earlier = publishers.find(stream.stream);
        const Connection* current =
            earlier == publishers.end() ? nullptr : find_connection(connections, earlier->second.id);
        if (current != nullptr && !is_same_client(*current, earlier->second)) {
            current = nullptr;
        }
        const Connection* const likeliest = find_connection(connections, *stream.publisher_id);
        // A publisher listed before has waited for the stream; a newly listed one has not.
        const bool has_waited = std::any_of(listed.begin(), listed.end(), [likeliest](const Connection& c) {
            return is_same_client(c, *likeliest);
        });
        if (earlier != publishers.end() && current == nullptr && has_waited) {
            events.push_back({EventKind::TAKEOVER, *likeliest, earlier->second, std::nullopt});
        }
        now[stream.stream] = current == nullptr ? *likeliest : *current;
    }
    publishers = std::move(now);
    listed = connections;
}

std::string event_line(const ConnectionEvent& event) {
    std::string line = std::string(event_name(event.kind)) + " " + std::to_string(event.client.id) + ", " +
                       describe(event.client);
    if (event.previous) {
        line += "; the previous publisher was " + std::to_string(event.previous->id) + ", " +
                describe(*event.previous);
    }
    if (event.kind == EventKind::GONE) {
        line += " after " + number_text(seconds_of(event.age_us)) + " s, " +
                format_bytes(event.client.bytes_sent) + " sent, " +
                format_bytes(event.client.bytes_received) + " received";
    }
    return line;
}

std::string event_json(const ConnectionEvent& event, std::int64_t unix_seconds) {
    const Connection& client = event.client;
    EventLine line{unix_seconds,
                   event_name(event.kind),
                   client.id,
                   client.stream,
                   client.mode,
                   client.address,
                   seconds_of(event.age_us),
                   client.bytes_sent,
                   client.bytes_received,
                   std::nullopt,
                   ""};
    if (event.previous) {
        line.previous_id = event.previous->id;
        line.previous_address = event.previous->address;
    }
    return event_line_json(line);
}

std::vector<std::pair<std::string, std::string>> event_variables(const ConnectionEvent& event) {
    const Connection& client = event.client;
    return {{"V9_EVENT", event_name(event.kind)},
            {"V9_ID", std::to_string(client.id)},
            {"V9_STREAM", escape_untrusted(std::string_view(client.stream).substr(0, MAX_NAME_BYTES))},
            {"V9_MODE", escape_untrusted(client.mode)},
            {"V9_ADDRESS", escape_untrusted(client.address)},
            {"V9_SECONDS", number_text(seconds_of(event.age_us))},
            {"V9_BYTES_SENT", number_text(client.bytes_sent)},
            {"V9_BYTES_RECEIVED", number_text(client.bytes_received)},
            {"V9_PREVIOUS_ID", event.previous ? std::to_string(event.previous->id) : ""},
            {"V9_PREVIOUS_ADDRESS", event.previous ? escape_untrusted(event.previous->address) : ""}};
}
