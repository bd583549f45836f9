#include "tools/v9_rtmp_ctl/stream_health.h"

#include <algorithm>
#include <optional>

namespace {

bool is_still(const ConnectionHistory& history, const ClientRecord& record) {
    return still_us(history, media_counter(record)) >= STILL_AFTER_US;
}

// How long ago the foremost player had got what this one has got by now, both since they could be compared. 0 where
// there is no other to compare with.
std::uint64_t behind_us(const ConnectionHistory& history, const ClientRecord& client) {
    std::uint64_t behind = 0;
    for (const ClientRecord& other : history.clients()) {
        const std::optional<std::uint64_t> own = gained_beside(client, other);
        const std::optional<std::uint64_t> others = gained_beside(other, client);
        if (other.connection.mode != "play" || other.connection.id == client.connection.id || !own ||
            !others) {
            continue;
        }
        const std::uint64_t since_us =
            history.attended_us() - std::max(client.stream_attended_us, other.stream_attended_us);
        const std::uint64_t missing = *others - std::min(*own, *others);
        // At the other's rate.
        const double lag_us = *others == 0 ? 0
                                           : static_cast<double>(since_us) * static_cast<double>(missing) /
                                                 static_cast<double>(*others);
        behind = std::max(behind, static_cast<std::uint64_t>(lag_us));
    }
    return behind;
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
