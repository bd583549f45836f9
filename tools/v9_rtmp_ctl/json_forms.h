// The JSON that scripts read; the manual page describes each form member by member. Pure.
//
// Every form is one line without a newline. Bytes that are not UTF-8 become U+FFFD.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/stream_summary.h"
#include "tools/v9_rtmp_ctl/text.h"

// {"status": 0, "command": "...", "message": "...", "pairs": [["name","value"], ...]}, blanks included.
[[nodiscard]] std::string reply_json(const Reply& reply);

// {"slots":128,"connections":[...]}. The rate members are named after the unit.
[[nodiscard]] std::string list_json(const std::vector<Connection>& connections,
                                    RateUnit unit = RateUnit::BYTES);

// {"streams":[...]}
[[nodiscard]] std::string streams_json(const std::vector<StreamSummary>& streams,
                                       RateUnit unit = RateUnit::BYTES);

// {"running":true,"slots":128,"streams":[...],"connections":[...]}; one interval of watch.
[[nodiscard]] std::string watch_json(bool running, const std::vector<StreamSummary>& streams,
                                     const std::vector<Connection>& connections,
                                     RateUnit unit = RateUnit::BYTES);

// {"greeting":"...","round_trip_ms":1.234,"listeners":[4711],"notes":["..."]}; listeners is null if unknown.
struct Greeting {
    std::string text;
    std::uint64_t round_trip_us = 0;
    std::optional<std::vector<unsigned>> listeners;  // processes listening on the server's port
    std::vector<std::string> notes;                  // problems with the port, or what is unknown
};
[[nodiscard]] std::string hello_json(const Greeting& greeting);

// {"dropped":2,"dry_run":false,"message":"..."}; message is null if the server sent none or several. A drop
// by id adds "ids", the connections certainly dropped, and "uncertain", the ids for which another client may
// have been dropped instead. A dry run adds them too: "ids" are then those that would be dropped, and
// "uncertain" is empty.
struct DropResult {
    std::size_t dropped = 0;
    bool dry_run = false;
    std::optional<std::string> message;
    std::optional<std::vector<unsigned>> ids;
    std::vector<unsigned> uncertain_ids;
};
[[nodiscard]] std::string drop_json(const DropResult& result);

// One line of the watchdog: {"unix_seconds":N,"action":"dropped","rule":"stalled","reason":"...","id":17,...}
struct WatchdogLine {
    std::int64_t unix_seconds = 0;
    std::string action;
    std::string rule;
    std::string reason;
    unsigned id = 0;
    std::string stream;
    std::string mode;
    std::string address;
    std::optional<std::string> message;
};
[[nodiscard]] std::string watchdog_json(const WatchdogLine& line);

// One line of events: {"unix_seconds":N,"event":"gone","id":3,...,"seconds":12,...}
struct EventLine {
    std::int64_t unix_seconds = 0;
    std::string event;
    unsigned id = 0;
    std::string stream;
    std::string mode;
    std::string address;
    std::optional<std::uint64_t> seconds;
    std::optional<std::uint64_t> bytes_sent;
    std::optional<std::uint64_t> bytes_received;
    std::optional<unsigned> previous_id;
    std::string previous_address;
};
[[nodiscard]] std::string event_line_json(const EventLine& line);

// {"worst":"warning","findings":[{"level":"warning","what":"slots","text":"..."}]}
struct FindingLine {
    std::string level;
    std::string what;
    std::string text;
};
[[nodiscard]] std::string findings_json(const std::vector<FindingLine>& findings, const std::string& worst);

// {"version":"1.0.0"}
[[nodiscard]] std::string version_json(const std::string& version);
