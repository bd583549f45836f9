// Random schedules for the server and its reference: joins, messages, departures and the passing of time.
//
// A schedule is plain data and depends only on its seed, so it can be repeated, shortened and shown. Its
// actions name connections by the number of their join, and have no effect if that connection is gone.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/model/reference_server.h"

struct Action {
    enum class Kind { JOIN, RECEIVE, READER_ENDS, DROP, PASS };

    Kind kind = Kind::PASS;
    std::uint32_t connection = 0;  // for all but PASS
    reference::Received received;  // for RECEIVE
    bool on_own_stream = false;    // for RECEIVE: on the message stream id that the client was given
    std::uint64_t wait_us = 0;     // for PASS: before it
};

struct Schedule {
    std::uint64_t seed = 0;
    std::uint64_t start_us = 0;
    std::vector<Action> actions;
};

// Returns the schedule with this seed.
Schedule make_schedule(std::uint64_t seed);

// Return one line for an action, and one for a message.
std::string shown(const Action& action);
std::string shown(const reference::Message& message);
