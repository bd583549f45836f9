// What a drop asks and tells.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/json_forms.h"

// "1 connection", "2 connections".
[[nodiscard]] std::string connections_text(std::size_t count);

// Asks on a terminal. Where no question can be asked, options.force is needed. Nothing means yes.
[[nodiscard]] std::optional<Failure> confirm(const DropOptions& options, const std::string& question);

// Shows whom a drop would concern.
void print_dry_run(const Settings& settings, const std::vector<const Connection*>& connections);

// Tells what was dropped. For people line says it, and an empty one nothing.
void print_dropped(const Settings& settings, const DropResult& result, const std::string& line);
