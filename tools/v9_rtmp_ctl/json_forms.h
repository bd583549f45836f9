// The JSON that scripts read; the manual page describes each form member by member. Pure.
//
// Every form is one line without line end. Bytes that are not UTF-8 become U+FFFD.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/stream_summary.h"

// {"status": 0, "command": "...", "message": "...", "pairs": [["name","value"], ...]}, blanks included.
[[nodiscard]] std::string reply_json(const Reply& reply);

// {"slots":128,"connections":[...]}
[[nodiscard]] std::string list_json(const std::vector<Connection>& connections);

// {"streams":[...]}
[[nodiscard]] std::string streams_json(const std::vector<StreamSummary>& streams);

// {"running":true,"slots":128,"streams":[...],"connections":[...]}; what one interval of watch shows.
[[nodiscard]] std::string watch_json(bool running, const std::vector<StreamSummary>& streams,
                                     const std::vector<Connection>& connections);

// {"greeting":"...","round_trip_ms":1.234}
[[nodiscard]] std::string hello_json(const std::string& greeting, std::uint64_t round_trip_us);

// {"dropped":2,"dry_run":false,"message":"..."}; message null where none came from the server.
[[nodiscard]] std::string drop_json(unsigned dropped, bool dry_run,
                                    const std::optional<std::string>& message);

// {"version":"1.0.0"}
[[nodiscard]] std::string version_json(const std::string& version);
