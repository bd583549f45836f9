// What must become of the scripted session when one call has failed: which texts the server prints and how
// often, who is dropped, who misses what.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <string>

#include "tests/fault/faulty_server.h"
#include "tests/fault/scripted_session.h"

inline constexpr std::size_t NOBODY = std::numeric_limits<std::size_t>::max();

struct Times {
    int least = 0;
    int most = 0;
};

// How a connection comes to its end.
enum class Ending { DROPPED_BY_CONTROL, CLIENT_LEFT, READER_DIED, WRITER_DIED, DROPPED_BY_SERVER };

// What one client misses. `misses` says who it is, where that can be known.
enum class Missing {
    NOTHING,
    ONE_MESSAGE,
    A_HEADER,
    A_HEADER_OR_NOTHING,
    METADATA,
    METADATA_OF_A_STREAM,  // each of its players
    CHUNK_SIZE,
    REPLY_BEFORE_DROP
};

struct DocumentedOutcome {
    std::string in_short = "nothing changes";
    // Somebody is dropped; NOBODY in `dropped`: one whom the record does not name.
    bool drops = false;
    std::size_t dropped = NOBODY;
    Ending ending = Ending::DROPPED_BY_SERVER;
    Missing missing = Missing::NOTHING;
    std::size_t misses = NOBODY;
    std::size_t most_who_miss = 1;
    // Beside those that every session prints.
    std::map<std::string, Times> texts;
    // The process ends by an assertion, or for want of memory.
    std::string last_words;
    bool control_socket_lost = false;
    // Before it had the answers that it waits for.
    bool control_client_lost = false;
    std::uint32_t control_answer_lost = 0;  // which one, from 1; 0: none
    // Whose messages are acknowledged but for one.
    std::size_t misses_acknowledgement = NOBODY;
    std::size_t listed_without_lock = NOBODY;
};

// For the call that the watch has seen fail; nothing changes when it has seen none.
DocumentedOutcome documented_outcome(FaultCall call, const std::string& action, const FaultWatch& watch);
