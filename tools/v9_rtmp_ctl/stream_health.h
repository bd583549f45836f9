// Problems of streams and clients, found in a history of listings. Pure.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tools/v9_rtmp_ctl/connection_history.h"
#include "tools/v9_rtmp_ctl/connections.h"

// A client that has carried no media for this long counts as still. A still publisher is silent, and a still
// player is stalled if its stream continues.
constexpr std::uint64_t STILL_AFTER_US = 5000000;
// A player at least this far behind its stream is reported.
constexpr std::uint64_t BEHIND_AFTER_US = 5000000;
// Timestamps above 24 bits break most players. They are reached 4 h 39 min 37 s after a player joined.
constexpr std::uint64_t TIMESTAMP_LIMIT_US = 16777216000;
constexpr std::uint64_t NEAR_LIMIT_US = TIMESTAMP_LIMIT_US - 1200000000;
// A player compared with its publisher needs only this percentage of the publisher's bytes, because headers
// differ and some messages are not relayed.
constexpr std::uint64_t PUBLISHER_PERCENT = 90;

enum class StreamState {
    LIVE,
    SILENT,   // the publishers send nothing
    WAITING,  // there are only players
};
[[nodiscard]] const char* state_text(StreamState state);

// Returns the state of each stream name that has a publisher or a player. Without a history, every publisher
// counts as live.
[[nodiscard]] std::map<std::string, StreamState> stream_states(const std::vector<Connection>& connections,
                                                               const ConnectionHistory* history);

using Clients = std::vector<const ClientRecord*>;

// Returns the other clients of a client's stream that have this mode. Names that were cut can differ in the
// part that is missing, so a client with such a name has none.
[[nodiscard]] Clients others_of_stream(const ConnectionHistory& history, const ClientRecord& client,
                                       std::string_view mode);

// Returns the relayed publisher of a player's stream, or all its publishers if it is not known which one
// is relayed.
[[nodiscard]] Clients sources_of(const ConnectionHistory& history, const ClientRecord& player);

struct ClientHealth {
    std::uint64_t age_us = 0;     // since first seen; for a player, since first seen playing
    std::uint64_t still_us = 0;   // since media last came from it or went to it
    bool is_stalled = false;      // player without media while its stream continues
    std::uint64_t behind_us = 0;  // how far a player is behind its stream; 0 if it keeps up
    bool is_near_limit = false;   // player whose timestamps will soon exceed 24 bits, or already do
};
[[nodiscard]] ClientHealth client_health(const ConnectionHistory& history, const ClientRecord& client);

// Whether a player receives what a publisher of its stream sends, both recently and in total. Counters
// include headers, which depend on the chunk size, so a few percent may be missing. The player and the
// publisher must have settled.
[[nodiscard]] bool keeps_up(const ConnectionHistory& history, const ClientRecord& player,
                            const ClientRecord& publisher, std::uint64_t limit_us);
