// The lines of watch around its tables: heading, foot and help. Pure.
#pragma once

#include <cstddef>
#include <limits>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/watch_model.h"

constexpr std::size_t ANY_WIDTH = std::numeric_limits<std::size_t>::max();

// The two heading lines, each in the longest form that fits into columns: the server's slots and connections,
// and the totals of the connections shown.
[[nodiscard]] std::string heading_text(const WatchModel& model, std::size_t columns);
[[nodiscard]] std::string totals_text(const WatchModel& model, std::size_t columns);

// Lists as many keys as fit, or asks a question.
[[nodiscard]] std::string foot_text(const WatchModel& model, std::size_t columns);

[[nodiscard]] std::vector<std::string> help_texts();
