// Who publishes and who plays each stream name. Process-wide; main thread only, no lock.
//
// 1. Every look-up by name inserts a record when there is none. Records without players are disposed of.
// 2. Connections are named by slot index, 0 to MAX_CONNECTIONS - 1.
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
    std::size_t publisher = NO_CONNECTION;  // slot of the publisher in force
    std::vector<std::size_t> players;       // slots in the order of subscription, each at most once
};

// The record of a name, the empty name included.
[[nodiscard]] StreamRecord& find_or_insert_stream(const std::string& name) ON_MAIN_THREAD;

// Adds a player at the end, or does nothing when it is listed already or the name is empty.
void stream_subscribe_for_play(const std::string& name, std::size_t connection) ON_MAIN_THREAD;

// Removes a player; the others keep their order. An unknown name gets a record, an empty name does nothing.
void stream_unsubscribe_for_play(const std::string& name, std::size_t connection) ON_MAIN_THREAD;

// Housekeeping of one main-loop pass: erases the first record, in byte order of the names, that has no
// players and was not active for 5 s. intended: a publisher does not keep it; its next media message makes a
// new one.
void dispose_idle_streams() ON_MAIN_THREAD;

// Number of records; for tests and curious maintainers.
[[nodiscard]] std::size_t stream_count() ON_MAIN_THREAD;
