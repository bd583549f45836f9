// What watch knows and shows, and what its keys do to it. No I/O.
//
//   VIEW --'/'--> FILTER --Enter, Esc--> VIEW
//   VIEW --'?'--> HELP --any key--> VIEW
//   VIEW --'d', no row selected--> DROP_ID --Enter--> DROP_CONFIRM --'y': drop; any other key--> VIEW
//   VIEW --'d', a row selected--> DROP_CONFIRM
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/keys.h"
#include "tools/v9_rtmp_ctl/selection.h"
#include "tools/v9_rtmp_ctl/stream_summary.h"
#include "tools/v9_rtmp_ctl/tables.h"
#include "tools/v9_rtmp_ctl/text.h"

enum class WatchMode { VIEW, FILTER, HELP, DROP_ID, DROP_CONFIRM };
enum class WatchView { BOTH, STREAMS, CONNECTIONS };

// Where the user is in a table. Rows count from 0, scrolled ones included.
struct TableCursor {
    std::optional<std::size_t> selected;
    std::size_t scroll = 0;  // rows above the first one shown
    std::size_t page = 1;    // rows that the last frame had room for
};

struct WatchModel {
    // From the server.
    bool running = false;            // the last look was answered
    std::optional<Failure> trouble;  // why it was not; nothing before the first look
    Listing listing;                 // sorted; empty while not running
    std::vector<StreamSummary> streams;
    std::string clock;  // time of day of the last look

    // From the command line.
    Selection selection;

    // From the user.
    WatchMode mode = WatchMode::VIEW;
    WatchView view = WatchView::BOTH;
    SortKey sort = SortKey::ID;
    bool reversed = false;
    RateUnit unit = RateUnit::BYTES;
    Keep keep = Keep::ADDRESSES;
    bool paused = false;
    std::string filter;         // shown is what contains it in its stream, mode or address
    std::string filter_before;  // while a filter is typed: the one that Esc brings back
    std::string input;          // of DROP_ID
    TableCursor stream_cursor;
    TableCursor connection_cursor;
    bool streams_have_keys = false;            // arrows select among the streams, not the connections
    std::optional<Connection> drop_candidate;  // of DROP_CONFIRM: one connection
    std::optional<std::string> drop_stream;    // or all of a stream
    std::string notice;                        // the result of the last drop; until the next key
};

enum class WatchAction { NONE, QUIT, DROP };

// What a key does. DROP: drop_candidate or drop_stream is to be dropped.
[[nodiscard]] WatchAction press_key(WatchModel& model, const Key& key);

// A look that was answered. Rates are measured against the listing before. A selected row stays with its
// client or stream, or where that has gone, with its place.
void take_in(WatchModel& model, Listing listing);

// A look that was not.
void take_in(WatchModel& model, const Failure& failure);

// Those that the selection and the filter let through. The pointers hold until the model changes.
[[nodiscard]] std::vector<const Connection*> shown_connections(const WatchModel& model);
[[nodiscard]] std::vector<const StreamSummary*> shown_streams(const WatchModel& model);

// Whether the arrows are for the streams.
[[nodiscard]] bool keys_are_for_streams(const WatchModel& model);
