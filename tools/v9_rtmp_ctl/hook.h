// A program of the user's that is run for each event: without a shell, what happened is in its
// environment alone.
#pragma once

#include <signal.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// One that runs for longer is killed, with its process group.
constexpr std::uint64_t MAX_HOOK_US = 10000000;

// Runs the program, which is looked for in PATH, and waits for its end. Standard input is empty, standard
// output goes to standard error. Nothing when it ended with status 0, or what went wrong.
[[nodiscard]] std::optional<std::string> run_hook(
    const std::string& program, const std::vector<std::pair<std::string, std::string>>& variables,
    const sigset_t& signal_mask, std::uint64_t max_us = MAX_HOOK_US);
