// Random schedules for the server and its reference: who joins, who sends what, who leaves, and how
// time passes.
//
// A schedule is plain data and follows from its seed alone, so it can be run again, shortened and shown. Its
// actions name connections by the number of their join, and mean nothing when that one is gone.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/model/reference_server.h"

struct Action {
    enum class Kind { JOIN, RECEIVE, READER_ENDS, WRITER_ENDS, DROP, PASS };

    Kind kind = Kind::PASS;
    std::uint32_t connection = 0;  // all but PASS
    bool admitted = true;          // of JOIN
    reference::Received received;  // of RECEIVE
    bool on_own_stream = false;    // of RECEIVE: on the message stream id that the client was given
    std::uint64_t wait_us = 0;     // of PASS, before it
};

struct Schedule {
    std::uint64_t seed = 0;
    std::uint64_t start_us = 0;
    std::size_t first_slot = 0;
    std::vector<Action> actions;
};

// The schedule with this seed and so many passes; 0: the seed says how many, 10 to 35.
Schedule make_schedule(std::uint64_t seed, std::size_t passes);

// The draw-th random number of the server under this seed.
std::uint32_t random_number(std::uint64_t seed, std::uint64_t draw);

// The payload that makes the server see this request.
std::string encoded(const reference::Received& received);

// One line an action.
std::string shown(const Action& action);
