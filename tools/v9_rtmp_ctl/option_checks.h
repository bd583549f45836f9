// Checks of option values, each with advice for invalid values.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>

constexpr double MAX_SECONDS = 86400;
// The server answers ten times a second, so a shorter interval shows nothing new.
constexpr double MIN_INTERVAL_SECONDS = 0.1;

// Reads a number of any size, as the options for seconds do. One too small for a double counts as 0. Empty if
// the text is not a number.
[[nodiscard]] std::optional<double> read_seconds(const std::string& text);

[[nodiscard]] CLI::Validator seconds(double min);

// A valid number of seconds, or "off".
[[nodiscard]] CLI::Validator seconds_or_off(double min);

[[nodiscard]] CLI::Validator address_range();

[[nodiscard]] CLI::Validator address_and_port();
[[nodiscard]] CLI::Validator rtmp_address();
