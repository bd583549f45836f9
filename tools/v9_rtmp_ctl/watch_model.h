// The state of watch and the effect of its keys. No I/O.
//
//   VIEW --'/'--> FILTER --Enter, Esc--> VIEW
//   VIEW --'?'--> HELP --any key--> VIEW
//   VIEW --'d', no row selected--> DROP_ID --Enter--> DROP_CONFIRM --'y': drop; any other key--> VIEW
//   DROP_ID --Esc, or Enter without the id of a listed connection--> VIEW
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

// The user's position in a table. Rows count from 0 and include those scrolled away.
struct TableCursor {
    std::optional<std::size_t> selected;
    std::size_t scroll = 0;  // rows above the first one shown
    std::size_t page = 1;    // rows that the last frame had room for
};

struct WatchModel {
    // From the server.
    bool running = false;            // the last poll was answered
    std::optional<Failure> trouble;  // why it was not; empty before the first poll
    Listing listing;                 // sorted; empty while not running
    std::vector<StreamSummary> streams;
    std::string clock;  // wall-clock time of the last poll

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
    std::string filter;         // shows rows with this text in stream, mode or address
    std::string filter_before;  // while a filter is typed: the one Esc restores
    std::string input;          // for DROP_ID
    TableCursor stream_cursor;
    TableCursor connection_cursor;
    bool streams_have_keys = false;            // the arrow keys select streams, not connections
    std::optional<Connection> drop_candidate;  // for DROP_CONFIRM: one connection
    std::optional<std::string> drop_stream;    // or all of one stream
    std::string notice;                        // result of the last drop; shown until the next key
};

enum class WatchAction { NONE, QUIT, DROP };

// Handles a key. DROP: the caller drops drop_candidate or drop_stream.
[[nodiscard]] WatchAction press_key(WatchModel& model, const Key& key);

// Records a listing. Rates are computed from the previous one and this one. The selection follows its client
// or stream; if that is gone, the selection keeps its row.
void take_in(WatchModel& model, Listing listing);

// Records a failed poll.
void take_in(WatchModel& model, const Failure& failure);

// Returns the connections or streams that match the selection of the command line and the filter. The
// pointers are valid until the model changes.
[[nodiscard]] std::vector<const Connection*> shown_connections(const WatchModel& model);
[[nodiscard]] std::vector<const StreamSummary*> shown_streams(const WatchModel& model);

// Whether the arrow keys select streams.
[[nodiscard]] bool keys_are_for_streams(const WatchModel& model);
