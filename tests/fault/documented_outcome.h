// The required outcome of the scripted session after one call has failed: which texts the server prints and
// how often, which client is dropped, and what each client misses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <string>

#include "tests/fault/faulty_server.h"
#include "tests/fault/scripted_session.h"

inline constexpr std::size_t NO_CLIENT = std::numeric_limits<std::size_t>::max();

struct Times {
    int least = 0;
    int most = 0;
};

// How a connection ends.
enum class Ending { DROPPED_BY_CONTROL, CLIENT_LEFT, READER_DIED, WRITER_DIED, DROPPED_BY_SERVER };

// What one client misses. `misses` is that client, if known.
enum class Missing {
    NOTHING,
    ONE_MESSAGE,
    A_HEADER,
    A_HEADER_OR_NOTHING,
    METADATA,
    METADATA_OF_A_STREAM,  // by each of its players
    CHUNK_SIZE,
    REPLY_BEFORE_DROP
};

struct DocumentedOutcome {
    std::string in_short = "nothing changes";
    // A client is dropped. If `dropped` is NO_CLIENT, the record does not say which.
    bool drops = false;
    std::size_t dropped = NO_CLIENT;
    Ending ending = Ending::DROPPED_BY_SERVER;
    Missing missing = Missing::NOTHING;
    std::size_t misses = NO_CLIENT;
    std::size_t most_who_miss = 1;
    // In addition to those that every session prints.
    std::map<std::string, Times> texts = {};
    // The last text if the process ends by an assertion or out of memory.
    std::string last_words = {};
    bool control_socket_lost = false;
    // The control client is lost before it has the replies it waits for.
    bool control_client_lost = false;
    std::uint32_t control_answer_lost = 0;  // its number, from 1; 0: none
    // The client that misses one acknowledgement.
    std::size_t misses_acknowledgement = NO_CLIENT;
    std::size_t listed_without_lock = NO_CLIENT;
};

// Returns the outcome for the failed call that the watch has recorded, or that of a normal session if there
// is none.
DocumentedOutcome documented_outcome(const FaultPlan& plan, const FaultWatch& watch);
