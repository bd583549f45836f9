// Runs a schedule through the server and its reference, and compares after every pass what they have printed,
// which connections are left, and the messages queued for them.
#pragma once

#include <string>

#include "tests/model/schedule.h"

struct Outcome {
    std::string difference;  // empty if the two behaved the same
    std::string printed;     // by the server
};

Outcome compare(const Schedule& schedule);

// Returns the schedule without the actions that are not needed to show a difference.
Schedule shortened(Schedule schedule);
