// The watchdog's lines on standard output: one for each client it dropped or tried to drop. Pure.
#pragma once

#include <cstdint>
#include <string>

#include "tools/v9_rtmp_ctl/drop_batch.h"
#include "tools/v9_rtmp_ctl/watchdog_rules.h"

enum class WatchdogAction {
    WOULD_DROP,  // in a dry run
    DROPPED,
    KEPT,    // the client had left, or the server refused
    MISSED,  // another client was dropped, or it is uncertain which client was, if any
};

struct WatchdogEvent {
    WatchdogAction action = WatchdogAction::DROPPED;
    Verdict verdict;
    std::string message;  // why the client was kept or missed
};

// Returns the event for the outcome of a drop.
[[nodiscard]] WatchdogEvent event_of(const Verdict& verdict, const DropOutcome& outcome);

// "dropped 17, play of 'cam1' from 203.0.113.7:50000: stalled: it has received nothing for 30 s while ..." If
// the client has no stream name, the drop is guarded by the id alone. The line then says so and gives the
// number of misses so far.
[[nodiscard]] std::string event_line(const WatchdogEvent& event, std::uint64_t misses);

// {"unix_seconds":N,"action":"dropped","rule":"stalled","reason":"...","id":17,"stream":"cam1","mode":"play",
//  "address":"203.0.113.7:50000","message":null}
[[nodiscard]] std::string event_json(const WatchdogEvent& event, std::int64_t unix_seconds);
