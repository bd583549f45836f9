// The publisher and the players of each stream name. Global; main thread only, no lock.
//
// 1. Every lookup by name inserts a record if there is none. Records without players are removed later.
// 2. Connections are identified by slot index, 0 to MAX_CONNECTIONS - 1.
// 3. References to records stay valid until dispose_idle_streams() erases the record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/thread_roles.h"
#include "core/limits.h"

struct StreamRecord {
    std::uint64_t last_activity_us = 0;
    std::size_t publisher = NO_CONNECTION;  // slot of the current publisher
    std::vector<std::size_t> players;       // slots in order of subscription, each at most once
};

// Returns the record of a name; the empty name has one too.
[[nodiscard]] StreamRecord& find_or_insert_stream(const std::string& name) ON_MAIN_THREAD;

// Adds a player at the end; a player that is already listed keeps its place. Does nothing if the name
// is empty.
void stream_subscribe_for_play(const std::string& name, std::size_t connection) ON_MAIN_THREAD;

// Removes a player; the others keep their order. An unknown name gets a record. Does nothing if the
// name is empty.
void stream_unsubscribe_for_play(const std::string& name, std::size_t connection) ON_MAIN_THREAD;

// Removes at most one record; called on every pass of the main loop. Picks the first one, in byte order of
// the names, that has no players and has been inactive for 5 s. intended: a publisher that sends nothing
// does not keep its record alive; its next media message creates a new one.
void dispose_idle_streams() ON_MAIN_THREAD;

// Returns the number of records, for tests.
[[nodiscard]] std::size_t stream_count() ON_MAIN_THREAD;
