// A user's program that is run for each event, without a shell. The event is passed only in its environment.
#pragma once

#include <signal.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// A program that runs longer is killed, with its process group.
constexpr std::uint64_t MAX_HOOK_US = 10000000;

// Runs the program, searching PATH, and waits for it to end. Its standard input is empty; its standard output
// goes to standard error. Sets SIGCHLD to its default. Empty if it exited with status 0; otherwise returns
// what went wrong.
[[nodiscard]] std::optional<std::string> run_hook(
    const std::string& program, const std::vector<std::pair<std::string, std::string>>& variables,
    const sigset_t& signal_mask, std::uint64_t max_us = MAX_HOOK_US);
