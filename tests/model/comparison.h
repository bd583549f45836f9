// Runs a schedule through the server and its reference, and compares all that can be seen of both after every
// pass: what was printed, who is connected, what waits for each client, what is held back, and the registry.
#pragma once

#include <optional>
#include <string>

#include "tests/model/schedule.h"

struct Difference {
    std::size_t action = 0;  // after which the two were not the same
    std::string what;
};

// Nothing when the two did the same. all_text, when given, is appended all that was printed.
std::optional<Difference> compare(const Schedule& schedule, std::string* all_text = nullptr);

// A schedule that still differs, with as few actions as leaving out some of them leads to.
Schedule shortened(const Schedule& schedule);
