// What is wrong with streams and clients, as a history of listings shows it. Pure.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/connection_history.h"
#include "tools/v9_rtmp_ctl/connections.h"

// Without media for so long, a client stands still.
constexpr std::uint64_t STILL_AFTER_US = 5000000;
// A player further behind the others of its stream is worth a word.
constexpr std::uint64_t BEHIND_AFTER_US = 5000000;
// Timestamps of more than 24 bits break most players: 4 h 39 min 37 s after a player joined.
constexpr std::uint64_t TIMESTAMP_LIMIT_US = 16777216000;
constexpr std::uint64_t NEAR_LIMIT_US = TIMESTAMP_LIMIT_US - 1200000000;

enum class StreamState {
    LIVE,
    SILENT,   // the publishers send nothing
    WAITING,  // there are players only
};
[[nodiscard]] const char* state_text(StreamState state);

// Of each stream name that has a publisher or a player. Without a history, a publisher counts as live.
[[nodiscard]] std::map<std::string, StreamState> stream_states(const std::vector<Connection>& connections,
                                                               const ConnectionHistory* history);

struct ClientHealth {
    std::uint64_t age_us = 0;    // since it was first seen; of a player, since it was first seen to play
    std::uint64_t still_us = 0;  // since media last came from it, or went to it
    bool is_stalled = false;     // a player that stands still while its stream goes on
    std::uint64_t behind_us =
        0;  // a player's, against the foremost of its stream; 0 also when it keeps up, or there is no other
    bool is_near_limit = false;  // a player whose timestamps pass 24 bits soon
};
[[nodiscard]] ClientHealth client_health(const ConnectionHistory& history, const ClientRecord& client);

// Whether a player gets what a publisher of its stream sends, recently and all in all. Headers count in both
// counters and differ with the chunk size, so a few percent may be missing. Both have settled.
[[nodiscard]] bool keeps_up(const ConnectionHistory& history, const ClientRecord& player,
                            const ClientRecord& publisher, std::uint64_t limit_us);
