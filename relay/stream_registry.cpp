#include "relay/stream_registry.h"

#include <algorithm>
#include <map>

#include "base/check.h"
#include "base/clock.h"
#include "base/diag.h"

namespace {

constexpr std::uint64_t IDLE_STREAM_US = 5000000;

std::map<std::string, StreamRecord> streams GUARDED_BY(MAIN_THREAD);

}  // namespace

StreamRecord& find_or_insert_stream(const std::string& name) {
    return streams.try_emplace(name).first->second;
}

void stream_subscribe_for_play(const std::string& name, std::size_t connection) {
    CHECK(connection < MAX_CONNECTIONS);
    if (name.empty()) {
        return;
    }
    StreamRecord& record = find_or_insert_stream(name);
    record.last_activity_us = monotonic_clock_us();
    if (std::find(record.players.begin(), record.players.end(), connection) != record.players.end()) {
        return;
    }
    diag("Connection for play subscribed to '%s'\n", name.c_str());
    record.players.push_back(connection);
}

void stream_unsubscribe_for_play(const std::string& name, std::size_t connection) {
    CHECK(connection < MAX_CONNECTIONS);
    if (name.empty()) {
        return;
    }
    StreamRecord& record = find_or_insert_stream(name);
    record.last_activity_us = monotonic_clock_us();
    if (std::erase(record.players, connection) != 0) {
        diag("Connection for play unsubscribed from '%s'\n", name.c_str());
    }
}

void dispose_idle_streams() {
    const std::uint64_t now_us = monotonic_clock_us();
    const auto old = std::find_if(streams.begin(), streams.end(), [now_us](const auto& entry) {
        return entry.second.players.empty() && entry.second.last_activity_us + IDLE_STREAM_US <= now_us;
    });
    if (old != streams.end()) {
        diag("Disposing old stream '%s'\n", old->first.c_str());
        streams.erase(old);
    }
}

std::size_t stream_count() {
    return streams.size();
}
