// Runs a schedule through the server and its reference, and compares their visible state after every pass:
// printed text, connections, queued messages, held messages, and the registry.
#pragma once

#include <optional>
#include <string>

#include "tests/model/schedule.h"

struct Difference {
    std::size_t action = 0;  // after which the two differed
    std::string what;
};

// Empty if the two behaved the same. If all_text is given, all printed text is appended to it.
std::optional<Difference> compare(const Schedule& schedule, std::string* all_text = nullptr);

// Returns a schedule that still differs, shortened by removing actions.
Schedule shortened(const Schedule& schedule);
