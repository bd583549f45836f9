// The question before a drop and the report after it.
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

// Asks on the terminal. Returns empty if the answer is yes, or if options.force is set, which skips the
// question. Without a terminal, options.force is required.
[[nodiscard]] std::optional<Failure> confirm(const DropOptions& options, const std::string& question);

// Shows which connections a drop would affect.
void print_dry_run(const Settings& settings, const std::vector<const Connection*>& connections);

// Reports what was dropped. In human-readable form prints `line`, which may be empty, or nothing
// with --quiet.
void print_dropped(const Settings& settings, const DropResult& result, const std::string& line);
