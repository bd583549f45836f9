// The report of a load, as JSON and as text.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>

#include "bench/lateness.h"
#include "bench/load/options.h"
#include "bench/load/process_costs.h"
#include "bench/load_player.h"
#include "tests/support/time_limits.h"

// Resources used so far by all processes involved.
struct Snapshot {
    // pid is the server's; 0: unknown.
    static Snapshot take(pid_t pid);

    TimePoint when;
    std::optional<ProcessCosts> server;
    ProcessCosts own;
    MachineCosts machine;
};

nlohmann::json setup_of(const LoadOptions& load);
// Returns the costs between the two: "seconds", "server", "load_generator", "machine_busy_percent"
// and "bottleneck".
nlohmann::json costs_between(const Snapshot& before, const Snapshot& after);
nlohmann::json figures_of(const Lateness& lateness);
nlohmann::json faults_of(const FrameTally& tally);

// Prints the report as text on standard output.
void print_report(const nlohmann::json& report);
