#include "tools/v9_rtmp_ctl/stream_health.h"

#include <algorithm>
#include <deque>
#include <iterator>
#include <optional>

namespace {

// The percentage of the publisher's bytes that a player must have received since the two became comparable.
// With chunks of 128 bytes, headers add 0.8 percent more bytes than with large chunks.
constexpr std::uint64_t KEEPS_UP_PERCENT = 97;
// The same for bytes sent recently, some of which may still be in transit.
constexpr std::uint64_t KEEPS_UP_RECENTLY_PERCENT = 95;
constexpr std::uint64_t LIMITS_PER_RECENT_TIME = 3;

bool is_still(const ConnectionHistory& history, const ClientRecord& record) {
    return still_us(history, media_counter(record)) >= STILL_AFTER_US;
}

// Returns when, on the attended clock, the client's media counter had this value, which is less than its last
// one. Empty if that was before its samples.
std::optional<double> find_time_of(const ClientRecord& client, double bytes) {
    const std::deque<CounterSample>& samples = client.samples;
    const auto later = std::partition_point(samples.begin(), samples.end(), [bytes](const CounterSample& s) {
        return static_cast<double>(s.bytes) <= bytes;
    });
    if (later == samples.begin()) {
        return std::nullopt;
    }
    const CounterHistory& counter = media_counter(client);
    const CounterSample before = *std::prev(later);
    const CounterSample after =
        later == samples.end() ? CounterSample{counter.grew_us, counter.bytes} : *later;
    const double part =
        (bytes - static_cast<double>(before.bytes)) / static_cast<double>(after.bytes - before.bytes);
    return static_cast<double>(before.attended_us) +
           part * static_cast<double>(after.attended_us - before.attended_us);
}

// Estimates how long before its counter last grew the other had transferred as much as this client has now.
// The bytes of both are counted from the time they became comparable. Only the given percentage of the
// other's bytes is counted. Empty while they cannot be compared.
std::optional<std::uint64_t> find_lag_us(const ConnectionHistory& history, const ClientRecord& client,
                                         const ClientRecord& other, std::uint64_t percent) {
    const std::optional<std::uint64_t> own = gained_beside(client, other);
    const std::optional<std::uint64_t> all = gained_beside(other, client);
    if (!own || !all) {
        return std::nullopt;
    }
    const double wanted = static_cast<double>(*all) / 100 * static_cast<double>(percent);
    const auto got = static_cast<double>(*own);
    if (got >= wanted) {
        return 0;
    }
    const CounterHistory& counter = media_counter(other);
    const double counted = static_cast<double>(*all) * got / wanted;
    const std::optional<double> reached_us =
        find_time_of(other, static_cast<double>(counter.bytes - *all) + counted);
    if (reached_us) {
        return static_cast<std::uint64_t>(std::max(static_cast<double>(counter.grew_us) - *reached_us, 0.0));
    }
    // That was before the samples, so the mean rate is used.
    const std::uint64_t since_us =
        history.attended_us() - std::max(client.stream_attended_us, other.stream_attended_us);
    return static_cast<std::uint64_t>(static_cast<double>(since_us) * (wanted - got) / wanted);
}

// Returns how far the player is behind the foremost one of its stream, or behind its publisher if no player
// is ahead. 0 if it keeps up with its publisher, because the foremost player may be ahead only by the header
// bytes of smaller chunks.
std::uint64_t behind_us(const ConnectionHistory& history, const ClientRecord& player) {
    std::optional<std::uint64_t> behind_publisher;
    for (const ClientRecord* const publisher : sources_of(history, player)) {
        if (keeps_up(history, player, *publisher, 3 * BEHIND_AFTER_US)) {
            return 0;
        }
        const std::uint64_t lag_us = find_lag_us(history, player, *publisher, PUBLISHER_PERCENT).value_or(0);
        behind_publisher = std::min(behind_publisher.value_or(lag_us), lag_us);
    }
    std::uint64_t behind = 0;
    for (const ClientRecord* const other : others_of_stream(history, player, "play")) {
        behind = std::max(behind, find_lag_us(history, player, *other, 100).value_or(0));
    }
    return behind != 0 ? behind : behind_publisher.value_or(0);
}

}  // namespace

const char* state_text(StreamState state) {
    switch (state) {
        case StreamState::LIVE:
            return "live";
        case StreamState::SILENT:
            return "silent";
        case StreamState::WAITING:
            return "waiting";
    }
    return "";
}

std::map<std::string, StreamState> stream_states(const std::vector<Connection>& connections,
                                                 const ConnectionHistory* history) {
    std::map<std::string, StreamState> states;
    for (const Connection& connection : connections) {
        if (!connection.stream.empty() && !connection.mode.empty()) {
            states.emplace(connection.stream, StreamState::WAITING);
        }
        if (!connection.stream.empty() && connection.mode == "publish") {
            states[connection.stream] = history == nullptr ? StreamState::LIVE : StreamState::SILENT;
        }
    }
    if (history == nullptr) {
        return states;
    }
    for (const ClientRecord& record : history->clients()) {
        const auto found = states.find(record.connection.stream);
        if (record.connection.mode == "publish" && found != states.end() && !is_still(*history, record)) {
            found->second = StreamState::LIVE;
        }
    }
    return states;
}

Clients others_of_stream(const ConnectionHistory& history, const ClientRecord& client,
                         std::string_view mode) {
    Clients found;
    if (client.connection.whole_name_bytes != 0) {
        return found;
    }
    for (const ClientRecord& other : history.clients()) {
        if (other.connection.id != client.connection.id &&
            other.connection.stream == client.connection.stream && other.connection.mode == mode) {
            found.push_back(&other);
        }
    }
    return found;
}

Clients sources_of(const ConnectionHistory& history, const ClientRecord& player) {
    Clients publishers = others_of_stream(history, player, "publish");
    const auto relayed = std::find_if(publishers.begin(), publishers.end(),
                                      [](const ClientRecord* p) { return p->is_relayed; });
    return relayed == publishers.end() ? publishers : Clients{*relayed};
}

ClientHealth client_health(const ConnectionHistory& history, const ClientRecord& client) {
    const bool plays = client.connection.mode == "play";
    ClientHealth health;
    const std::uint64_t since_us =
        plays && client.stream_seen_us != 0 ? client.stream_seen_us : client.first_seen_us;
    health.age_us = history.now_us() - std::min(since_us, history.now_us());
    health.still_us = still_us(history, media_counter(client));
    if (!plays) {
        return health;
    }
    health.is_stalled =
        health.still_us >= STILL_AFTER_US &&
        std::any_of(history.clients().begin(), history.clients().end(), [&](const ClientRecord& other) {
            return other.connection.stream == client.connection.stream && !is_still(history, other);
        });
    health.behind_us = behind_us(history, client);
    health.is_near_limit = health.age_us >= NEAR_LIMIT_US;
    return health;
}

bool keeps_up(const ConnectionHistory& history, const ClientRecord& player, const ClientRecord& publisher,
              std::uint64_t limit_us) {
    const std::optional<std::uint64_t> lag_us = find_lag_us(history, player, publisher, KEEPS_UP_PERCENT);
    if (!lag_us || *lag_us > limit_us) {
        return false;
    }
    const std::uint64_t recent_us = LIMITS_PER_RECENT_TIME * limit_us;
    const std::optional<Movement> got = recent_movement(history, player, recent_us, 1);
    const std::optional<Movement> sent = recent_movement(history, publisher, recent_us, 1);
    return !got || !sent || got->bytes >= sent->bytes / 100 * KEEPS_UP_RECENTLY_PERCENT;
}
