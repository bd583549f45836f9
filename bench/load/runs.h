// The modes of relay_load. Each returns its report: "passed" says whether all checks held, and "failures"
// lists those that did not. A failure that ends the run early is thrown as TestFailure.
#pragma once

#include <nlohmann/json.hpp>

#include "bench/load/options.h"

// Modes relay, storm and floor.
nlohmann::json run_relay(const LoadOptions& load);
// Modes idle and sleepers.
nlohmann::json run_idle(const LoadOptions& load);
nlohmann::json run_capacity(const LoadOptions& load);

// Reports the current step on standard error.
void say(const char* text);
