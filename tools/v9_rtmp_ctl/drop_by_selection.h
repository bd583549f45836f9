// Drops the connections that match a selection, after confirmation.
#pragma once

#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/selection.h"

// The question ends with `whose`, for example "of stream 'cam1'". nothing_matched is the message if there is
// nothing to drop.
ExitCode drop_by_selection(const Settings& settings, const DropOptions& options, const std::string& whose,
                           const Failure& nothing_matched);

// Returns "from this address" for a single address, otherwise "from these addresses".
[[nodiscard]] std::string addresses_text(const Selection& selection);

// Drops these connections by their ids, and reports what was dropped.
ExitCode drop_connections(const Settings& settings, ControlClient& client,
                          const std::vector<Connection>& connections);
