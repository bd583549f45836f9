// What watch knows and shows, and what its keys do to it. No I/O.
//
//   VIEW --'/'--> FILTER --Enter, Esc--> VIEW
//   VIEW --'?'--> HELP --any key--> VIEW
//   VIEW --'d'--> DROP_ID --Enter--> DROP_CONFIRM --'y': drop; any other key--> VIEW
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/keys.h"
#include "tools/v9_rtmp_ctl/stream_summary.h"

enum class WatchMode { VIEW, FILTER, HELP, DROP_ID, DROP_CONFIRM };

struct WatchModel {
    // From the server.
    bool running = false;            // the last look was answered
    std::optional<Failure> trouble;  // why it was not; nothing before the first look
    Listing listing;                 // sorted; empty while not running
    std::vector<StreamSummary> streams;
    std::string clock;  // time of day of the last look

    // From the user.
    WatchMode mode = WatchMode::VIEW;
    SortKey sort = SortKey::ID;
    bool paused = false;
    std::string filter;                        // shown is what contains it in its stream, mode or address
    std::string filter_before;                 // while a filter is typed: the one that Esc brings back
    std::string input;                         // of DROP_ID
    std::optional<Connection> drop_candidate;  // of DROP_CONFIRM
    std::string notice;                        // what came of the last drop; until the next key
    std::size_t scroll = 0;                    // connections above the first one shown
};

enum class WatchAction { NONE, QUIT, DROP };

// What a key does. DROP: drop_candidate is to be dropped.
[[nodiscard]] WatchAction press_key(WatchModel& model, const Key& key);

// A look that was answered. Rates are measured against the listing before.
void take_in(WatchModel& model, Listing listing);

// A look that was not.
void take_in(WatchModel& model, const Failure& failure);

// Those that the filter lets through.
[[nodiscard]] std::vector<Connection> shown_connections(const WatchModel& model);
[[nodiscard]] std::vector<StreamSummary> shown_streams(const WatchModel& model);
