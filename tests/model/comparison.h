// Runs a schedule through the server and its reference, and compares their visible state after every pass:
// printed text, connections, queued messages, held messages, and the registry.
#pragma once

#include <optional>
#include <string>

#include "tests/model/schedule.h"

// Returns how the two differed, if they did. If all_text is given, all printed text is appended to it.
std::optional<std::string> compare(const Schedule& schedule, std::string* all_text = nullptr);

// Returns a schedule that still differs, without the actions that do not matter for that.
Schedule shortened(Schedule schedule);
