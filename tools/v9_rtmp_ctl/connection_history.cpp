#include "tools/v9_rtmp_ctl/connection_history.h"

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>
#include <utility>

namespace {

using Json = nlohmann::ordered_json;

constexpr int FORMAT_VERSION = 1;
// Number of samples kept over the window.
constexpr std::uint64_t SAMPLES_PER_WINDOW = 120;
// A publisher that sends nothing for this long loses the stream to another one that sends.
constexpr std::uint64_t TAKEOVER_US = 2500000;

bool is_member(const Connection& connection) {
    return !connection.stream.empty() && !connection.mode.empty();
}

bool is_publisher(const Connection& connection) {
    return connection.mode == "publish";
}

// Whether the listing had all the values that the connection is judged by.
bool is_complete(const Connection& connection) {
    return connection.bytes_sent && connection.bytes_received && !connection.address.empty();
}

bool is_same_client(const Connection& before, const Connection& now) {
    const bool keeps_stream = (before.stream.empty() && before.mode.empty()) ||
                              (before.stream == now.stream && before.mode == now.mode);
    return before.id == now.id && before.address == now.address && keeps_stream &&
           before.bytes_sent.value_or(0) <= now.bytes_sent.value_or(0) &&
           before.bytes_received.value_or(0) <= now.bytes_received.value_or(0);
}

void grow(CounterHistory& counter, std::uint64_t bytes, std::uint64_t attended_us) {
    if (bytes != counter.bytes) {
        counter.bytes = bytes;
        counter.grew_us = attended_us;
    }
}

void add_sample(ClientRecord& record, std::uint64_t attended_us, std::uint64_t window_us) {
    std::deque<CounterSample>& samples = record.samples;
    if (!samples.empty() && attended_us - samples.back().attended_us < window_us / SAMPLES_PER_WINDOW) {
        return;
    }
    samples.push_back({attended_us, media_counter(record).bytes});
    // Keep one sample that is at least as old as the window.
    while (samples.size() > 1 && attended_us - samples[1].attended_us >= window_us) {
        samples.pop_front();
    }
}

// Returns the newest sample not later than attended_us. Null if all are later.
const CounterSample* sample_at(const ClientRecord& record, std::uint64_t attended_us) {
    const auto later = std::upper_bound(
        record.samples.begin(), record.samples.end(), attended_us,
        [](std::uint64_t time_us, const CounterSample& s) { return time_us < s.attended_us; });
    return later == record.samples.begin() ? nullptr : &*std::prev(later);
}

std::optional<std::uint64_t> bytes_when_both_had_settled(const ClientRecord& client,
                                                         const ClientRecord& other) {
    if (client.settled_as == 0 || other.settled_as == 0 ||
        client.connection.stream != other.connection.stream) {
        return std::nullopt;
    }
    if (client.settled_as > other.settled_as) {
        return client.settled_bytes;
    }
    const auto found = client.since.find(other.settled_as);
    return found == client.since.end() ? std::nullopt : std::optional(found->second);
}

Json counter_json(const CounterHistory& counter) {
    return {counter.bytes, counter.first_bytes, counter.grew_us};
}

CounterHistory read_counter(const Json& json) {
    return {json.at(0).get<std::uint64_t>(), json.at(1).get<std::uint64_t>(),
            json.at(2).get<std::uint64_t>()};
}

Json client_json(const ClientRecord& record) {
    Json since = Json::array();
    for (const auto& [other, bytes] : record.since) {
        since.push_back({other, bytes});
    }
    return {{"id", record.connection.id},
            {"stream", record.connection.stream},
            {"mode", record.connection.mode},
            {"address", record.connection.address},
            {"first_seen_us", record.first_seen_us},
            {"first_attended_us", record.first_attended_us},
            {"stream_seen_us", record.stream_seen_us},
            {"stream_attended_us", record.stream_attended_us},
            {"sent", counter_json(record.sent)},
            {"received", counter_json(record.received)},
            {"is_relayed", record.is_relayed},
            {"quiet_since_us", record.quiet_since_us},
            {"settled_as", record.settled_as},
            {"settled_bytes", record.settled_bytes},
            {"since", std::move(since)}};
}

ClientRecord read_client(const Json& json) {
    ClientRecord record;
    json.at("id").get_to(record.connection.id);
    json.at("stream").get_to(record.connection.stream);
    json.at("mode").get_to(record.connection.mode);
    json.at("address").get_to(record.connection.address);
    json.at("first_seen_us").get_to(record.first_seen_us);
    json.at("first_attended_us").get_to(record.first_attended_us);
    json.at("stream_seen_us").get_to(record.stream_seen_us);
    json.at("stream_attended_us").get_to(record.stream_attended_us);
    record.sent = read_counter(json.at("sent"));
    record.received = read_counter(json.at("received"));
    record.connection.bytes_sent = record.sent.bytes;
    record.connection.bytes_received = record.received.bytes;
    record.is_relayed = json.value("is_relayed", false);
    record.quiet_since_us = json.value("quiet_since_us", std::uint64_t{0});
    json.at("settled_as").get_to(record.settled_as);
    json.at("settled_bytes").get_to(record.settled_bytes);
    for (const Json& pair : json.at("since")) {
        record.since[pair.at(0).get<std::uint64_t>()] = pair.at(1).get<std::uint64_t>();
    }
    return record;
}

Json totals_json(const std::string& name, const StreamTotals& totals) {
    return {{"stream", name},
            {"bytes_received", totals.bytes_received},
            {"bytes_sent", totals.bytes_sent},
            {"player_stall_us", totals.player_stall_us},
            {"publisher_silence_us", totals.publisher_silence_us},
            {"last_member_us", totals.last_member_us}};
}

StreamTotals read_totals(const Json& json) {
    StreamTotals totals;
    json.at("bytes_received").get_to(totals.bytes_received);
    json.at("bytes_sent").get_to(totals.bytes_sent);
    json.at("player_stall_us").get_to(totals.player_stall_us);
    json.at("publisher_silence_us").get_to(totals.publisher_silence_us);
    json.at("last_member_us").get_to(totals.last_member_us);
    return totals;
}

}  // namespace

ConnectionHistory::ConnectionHistory(HistoryTimes all_times) : times(all_times) {}

void ConnectionHistory::take_in(const Listing& listing) {
    if (listing.taken_us < last_us) {
        records.clear();
        last_us = listing.taken_us;
    }
    const bool is_first = last_us == 0;
    before_us = is_first ? listing.taken_us : last_us;
    const std::uint64_t elapsed_us =
        is_first ? 0 : std::min(listing.taken_us - last_us, times.longest_gap_us);
    last_us = listing.taken_us;
    attended += elapsed_us;
    std::vector<ClientRecord> before = std::exchange(records, {});
    forget_relayed(before);
    for (const Connection& connection : listing.connections) {
        take_in_client(connection, find_client(before, connection.id), elapsed_us);
    }
    std::sort(records.begin(), records.end(),
              [](const ClientRecord& a, const ClientRecord& b) { return a.connection.id < b.connection.id; });
    for (ClientRecord& record : records) {
        follow_publisher(record);
    }
    // Now all counters are from this listing, so clients can be compared from this moment on.
    for (ClientRecord& record : records) {
        settle(record);
    }
    forget_left();
    count_stalls(elapsed_us);
    bound_totals();
}

void ConnectionHistory::take_in_client(const Connection& connection, const ClientRecord* before,
                                       std::uint64_t elapsed_us) {
    if (!is_complete(connection)) {
        if (before != nullptr) {
            records.push_back(*before);
            records.back().sent.grew_us += elapsed_us;
            records.back().received.grew_us += elapsed_us;
        }
        return;
    }
    ClientRecord record;
    if (before != nullptr && is_same_client(before->connection, connection)) {
        record = *before;
    } else {
        record.first_seen_us = last_us;
        record.first_attended_us = attended;
        record.sent = {*connection.bytes_sent, *connection.bytes_sent, attended};
        record.received = {*connection.bytes_received, *connection.bytes_received, attended};
    }
    if (record.first_seen_us == last_us || record.received.bytes != *connection.bytes_received) {
        record.quiet_since_us = before_us;
    }
    const bool was_member = record.stream_seen_us != 0;
    const std::uint64_t sent_before = was_member ? record.sent.bytes : 0;
    const std::uint64_t received_before = was_member ? record.received.bytes : 0;
    record.connection = connection;
    grow(record.sent, *connection.bytes_sent, attended);
    grow(record.received, *connection.bytes_received, attended);
    if (is_member(connection)) {
        if (!was_member) {
            record.stream_seen_us = last_us;
            record.stream_attended_us = attended;
        }
        add_sample(record, attended, times.window_us);
        if (StreamTotals* const stream = totals_of(connection)) {
            stream->last_member_us = last_us;
            if (is_publisher(connection)) {
                stream->bytes_received += record.received.bytes - received_before;
            } else {
                stream->bytes_sent += record.sent.bytes - sent_before;
            }
        }
    }
    records.push_back(std::move(record));
}

void ConnectionHistory::forget_relayed(std::vector<ClientRecord>& before) const {
    for (ClientRecord& record : before) {
        if (record.is_relayed && last_us - record.quiet_since_us >= TAKEOVER_US) {
            // Still relayed if the stream has players.
            record.is_relayed =
                std::any_of(before.begin(), before.end(), [&record](const ClientRecord& other) {
                    return other.connection.mode == "play" &&
                           other.connection.stream == record.connection.stream;
                });
        }
    }
}

void ConnectionHistory::follow_publisher(ClientRecord& record) const {
    if (!is_member(record.connection) || !is_publisher(record.connection)) {
        return;
    }
    const bool is_alone = std::none_of(records.begin(), records.end(), [&record](const ClientRecord& other) {
        return &other != &record && is_publisher(other.connection) &&
               other.connection.stream == record.connection.stream;
    });
    record.is_relayed = record.is_relayed || is_alone;
}

void ConnectionHistory::settle(ClientRecord& record) {
    if (record.stream_seen_us == 0 || record.settled_as != 0 ||
        attended - record.stream_attended_us < times.settle_us) {
        return;
    }
    record.settled_as = ++last_settled;
    record.settled_bytes = media_counter(record).bytes;
    for (ClientRecord& other : records) {
        if (other.settled_as != 0 && other.settled_as != record.settled_as &&
            other.connection.stream == record.connection.stream) {
            other.since[record.settled_as] = media_counter(other).bytes;
        }
    }
}

void ConnectionHistory::forget_left() {
    for (ClientRecord& record : records) {
        std::erase_if(record.since, [this](const auto& entry) {
            return std::none_of(records.begin(), records.end(),
                                [&entry](const ClientRecord& r) { return r.settled_as == entry.first; });
        });
    }
}

void ConnectionHistory::count_stalls(std::uint64_t elapsed_us) {
    const auto has_grown = [this](const ClientRecord& r) { return media_counter(r).grew_us == attended; };
    for (const ClientRecord& record : records) {
        StreamTotals* const stream = totals_of(record.connection);
        if (stream == nullptr || has_grown(record) || elapsed_us == 0) {
            continue;
        }
        if (is_publisher(record.connection)) {
            stream->publisher_silence_us += elapsed_us;
        } else if (std::any_of(records.begin(), records.end(), [&](const ClientRecord& r) {
                       return r.connection.stream == record.connection.stream && has_grown(r);
                   })) {
            stream->player_stall_us += elapsed_us;
        }
    }
}

void ConnectionHistory::bound_totals() {
    while (totals.size() > MAX_STREAMS) {
        totals.erase(std::min_element(totals.begin(), totals.end(), [](const auto& a, const auto& b) {
            return a.second.last_member_us < b.second.last_member_us;
        }));
    }
}

StreamTotals* ConnectionHistory::totals_of(const Connection& connection) {
    return is_member(connection) && connection.stream.size() <= MAX_NAME_BYTES ? &totals[connection.stream]
                                                                               : nullptr;
}

std::string ConnectionHistory::to_json(const std::string& boot) const {
    Json clients = Json::array();
    for (const ClientRecord& record : records) {
        clients.push_back(client_json(record));
    }
    Json streams = Json::array();
    for (const auto& [name, stream] : totals) {
        streams.push_back(totals_json(name, stream));
    }
    const Json document{{"version", FORMAT_VERSION},
                        {"boot", boot},
                        {"now_us", last_us},
                        {"attended_us", attended},
                        {"settled", last_settled},
                        {"clients", std::move(clients)},
                        {"streams", std::move(streams)}};
    return document.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool ConnectionHistory::restore(std::string_view json, const std::string& boot) {
    try {
        const Json document = Json::parse(json);
        if (document.at("version") != FORMAT_VERSION) {
            return false;
        }
        ConnectionHistory read(times);
        const bool is_same_boot = document.at("boot").get<std::string>() == boot;
        for (const Json& stream : document.at("streams")) {
            StreamTotals& restored = read.totals[stream.at("stream").get<std::string>()];
            restored = read_totals(stream);
            restored.last_member_us = is_same_boot ? restored.last_member_us : 0;
        }
        if (is_same_boot) {
            document.at("now_us").get_to(read.last_us);
            document.at("attended_us").get_to(read.attended);
            document.at("settled").get_to(read.last_settled);
            for (const Json& client : document.at("clients")) {
                read.records.push_back(read_client(client));
            }
        }
        records = std::move(read.records);
        totals = std::move(read.totals);
        last_us = read.last_us;
        attended = read.attended;
        last_settled = read.last_settled;
        return true;
    } catch (const Json::exception&) {
        return false;
    }
}

const ClientRecord* find_client(const std::vector<ClientRecord>& records, unsigned id) {
    const auto found = std::find_if(records.begin(), records.end(),
                                    [id](const ClientRecord& r) { return r.connection.id == id; });
    return found == records.end() ? nullptr : &*found;
}

const CounterHistory& media_counter(const ClientRecord& record) {
    return is_publisher(record.connection) ? record.received : record.sent;
}

std::uint64_t still_us(const ConnectionHistory& history, const CounterHistory& counter) {
    return history.attended_us() - std::min(counter.grew_us, history.attended_us());
}

std::optional<std::uint64_t> gained_beside(const ClientRecord& client, const ClientRecord& other) {
    const std::optional<std::uint64_t> from = bytes_when_both_had_settled(client, other);
    return from ? std::optional(media_counter(client).bytes - *from) : std::nullopt;
}

std::optional<std::uint64_t> gained_beside_until(const ClientRecord& client, const ClientRecord& other,
                                                 std::uint64_t attended_us) {
    const std::optional<std::uint64_t> from = bytes_when_both_had_settled(client, other);
    if (!from) {
        return std::nullopt;
    }
    const CounterSample* const sample = sample_at(client, attended_us);
    return sample == nullptr || sample->bytes < *from ? 0 : sample->bytes - *from;
}

std::optional<Movement> recent_movement(const ConnectionHistory& history, const ClientRecord& client,
                                        std::uint64_t window_us, unsigned parts) {
    const std::uint64_t now_us = history.attended_us();
    const CounterSample* const first = now_us < window_us ? nullptr : sample_at(client, now_us - window_us);
    if (first == nullptr) {
        return std::nullopt;
    }
    const std::uint64_t bytes_now = media_counter(client).bytes;
    Movement movement{0, bytes_now - first->bytes};
    std::uint64_t before = first->bytes;
    for (unsigned part = 1; part <= parts; ++part) {
        const CounterSample* const sample =
            part == parts ? nullptr : sample_at(client, now_us - window_us + window_us * part / parts);
        const std::uint64_t bytes = sample == nullptr ? bytes_now : sample->bytes;
        movement.parts += bytes > before ? 1 : 0;
        before = bytes;
    }
    return movement;
}
