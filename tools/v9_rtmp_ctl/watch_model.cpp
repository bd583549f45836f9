#include "tools/v9_rtmp_ctl/watch_model.h"

#include <algorithm>
#include <utility>

#include "tools/v9_rtmp_ctl/drop_rules.h"
#include "tools/v9_rtmp_ctl/text.h"

namespace {

constexpr std::size_t MAX_INPUT_BYTES = 64;

bool contains(const std::string& text, const std::string& part) {
    return escape_untrusted(text).find(part) != std::string::npos;
}

template <typename Item>
const Item* selected_item(const std::vector<const Item*>& shown, const TableCursor& cursor) {
    return cursor.selected && *cursor.selected < shown.size() ? shown[*cursor.selected] : nullptr;
}

// Moves the selection to the same item's row; keeps its place if the item is gone.
template <typename Item, typename IsSame>
void select_again(const std::vector<const Item*>& shown, const IsSame& is_same, TableCursor& cursor) {
    const auto found = std::find_if(shown.begin(), shown.end(), is_same);
    if (cursor.selected && found != shown.end()) {
        cursor.selected = static_cast<std::size_t>(found - shown.begin());
    }
}

void arrange(WatchModel& model) {
    sort_connections(model.listing.connections, model.sort);
    model.streams = summarize_streams(model.listing.connections, model.streams, model.sort);
    if (model.reversed) {
        std::reverse(model.listing.connections.begin(), model.listing.connections.end());
        std::reverse(model.streams.begin(), model.streams.end());
    }
}

// Makes a change that moves rows, then selects the same items again.
template <typename Change>
void keep_selection(WatchModel& model, const Change& change) {
    const Connection* const connection = selected_item(shown_connections(model), model.connection_cursor);
    const StreamSummary* const stream = selected_item(shown_streams(model), model.stream_cursor);
    const std::pair client(connection == nullptr ? SLOT_COUNT : connection->id,
                           connection == nullptr ? std::string() : connection->address);
    const std::string name = stream == nullptr ? std::string() : stream->stream;
    change();
    select_again(
        shown_connections(model),
        [&client](const Connection* c) { return c->id == client.first && c->address == client.second; },
        model.connection_cursor);
    select_again(
        shown_streams(model), [&name](const StreamSummary* s) { return s->stream == name; },
        model.stream_cursor);
}

SortKey next_sort(SortKey key) {
    switch (key) {
        case SortKey::ID:
            return SortKey::STREAM;
        case SortKey::STREAM:
            return SortKey::RATE;
        case SortKey::RATE:
            break;
    }
    return SortKey::ID;
}

WatchView next_view(WatchView view) {
    switch (view) {
        case WatchView::BOTH:
            return WatchView::STREAMS;
        case WatchView::STREAMS:
            return WatchView::CONNECTIONS;
        case WatchView::CONNECTIONS:
            break;
    }
    return WatchView::BOTH;
}

void edit(std::string& text, const Key& key) {
    if (key.kind == KeyKind::CHARACTER && text.size() < MAX_INPUT_BYTES) {
        text += key.character;
    } else if (key.kind == KeyKind::BACKSPACE && !text.empty()) {
        text.pop_back();
    }
}

void select_nothing(WatchModel& model) {
    model.stream_cursor.selected.reset();
    model.connection_cursor.selected.reset();
}

// If no row is selected, Up and Down select the first row shown.
void move_selection(TableCursor& cursor, std::size_t rows, KeyKind key) {
    if (rows == 0) {
        return;
    }
    const std::size_t last = rows - 1;
    const std::size_t at = std::min(cursor.selected.value_or(cursor.scroll), last);
    const bool is_first = !cursor.selected;
    switch (key) {
        case KeyKind::UP:
            cursor.selected = is_first ? at : at - std::min<std::size_t>(at, 1);
            break;
        case KeyKind::DOWN:
            cursor.selected = is_first ? at : std::min(at + 1, last);
            break;
        case KeyKind::PAGE_UP:
            cursor.selected = at - std::min(at, cursor.page);
            break;
        case KeyKind::PAGE_DOWN:
            cursor.selected = std::min(at + cursor.page, last);
            break;
        case KeyKind::HOME:
            cursor.selected = 0;
            break;
        case KeyKind::END:
            cursor.selected = last;
            break;
        case KeyKind::CHARACTER:
        case KeyKind::ENTER:
        case KeyKind::ESCAPE:
        case KeyKind::BACKSPACE:
        case KeyKind::TAB:
        case KeyKind::OTHER:
            break;
    }
}

void press_special_key(WatchModel& model, KeyKind key) {
    if (key == KeyKind::ESCAPE) {
        select_nothing(model);
    } else if (key == KeyKind::TAB) {
        select_nothing(model);
        if (model.view == WatchView::BOTH) {
            model.streams_have_keys = !model.streams_have_keys;
        }
    } else if (keys_are_for_streams(model)) {
        move_selection(model.stream_cursor, shown_streams(model).size(), key);
    } else {
        move_selection(model.connection_cursor, shown_connections(model).size(), key);
    }
}

void begin_drop(WatchModel& model) {
    if (keys_are_for_streams(model)) {
        if (const StreamSummary* const stream = selected_item(shown_streams(model), model.stream_cursor)) {
            model.drop_stream = stream->stream;
            model.mode = WatchMode::DROP_CONFIRM;
            return;
        }
    } else if (const Connection* const connection =
                   selected_item(shown_connections(model), model.connection_cursor)) {
        model.drop_candidate = *connection;
        model.mode = WatchMode::DROP_CONFIRM;
        return;
    }
    model.input.clear();
    model.mode = WatchMode::DROP_ID;
}

void press_letter(WatchModel& model, char letter) {
    switch (letter) {
        case 's':
            keep_selection(model, [&model] {
                model.sort = next_sort(model.sort);
                arrange(model);
            });
            break;
        case 'r':
            keep_selection(model, [&model] {
                model.reversed = !model.reversed;
                arrange(model);
            });
            break;
        case 'u':
            model.unit = model.unit == RateUnit::BITS ? RateUnit::BYTES : RateUnit::BITS;
            break;
        case 't':
            model.keep = model.keep == Keep::TOTALS ? Keep::ADDRESSES : Keep::TOTALS;
            break;
        case 'v':
            select_nothing(model);
            model.view = next_view(model.view);
            break;
        case 'p':
        case ' ':
            model.paused = !model.paused;
            break;
        case '/':
            select_nothing(model);
            model.filter_before = std::exchange(model.filter, "");
            model.mode = WatchMode::FILTER;
            break;
        case 'd':
            begin_drop(model);
            break;
        case '?':
        case 'h':
            model.mode = WatchMode::HELP;
            break;
        default:
            break;
    }
}

WatchAction press_in_view(WatchModel& model, const Key& key) {
    model.notice.clear();
    if (key.kind != KeyKind::CHARACTER) {
        press_special_key(model, key.kind);
    } else if (key.character == 'q' || key.character == 'Q') {
        return WatchAction::QUIT;
    } else {
        press_letter(model, key.character);
    }
    return WatchAction::NONE;
}

void press_in_filter(WatchModel& model, const Key& key) {
    model.stream_cursor.scroll = 0;
    model.connection_cursor.scroll = 0;
    if (key.kind == KeyKind::ESCAPE) {
        model.filter = model.filter_before;
    }
    if (key.kind == KeyKind::ESCAPE || key.kind == KeyKind::ENTER) {
        model.mode = WatchMode::VIEW;
        return;
    }
    edit(model.filter, key);
}

void find_drop_candidate(WatchModel& model) {
    const std::optional<unsigned> id = parse_connection_id(model.input);
    model.mode = WatchMode::VIEW;
    if (!id) {
        model.notice = bad_connection_id(model.input).message;
        return;
    }
    const Connection* const found = find_connection(model.listing.connections, *id);
    if (found == nullptr) {
        model.notice = "There is no connection " + std::to_string(*id) + " in the list.";
        return;
    }
    model.drop_candidate = *found;
    model.mode = WatchMode::DROP_CONFIRM;
}

void press_in_drop_id(WatchModel& model, const Key& key) {
    if (key.kind == KeyKind::ESCAPE || (key.kind == KeyKind::ENTER && model.input.empty())) {
        model.mode = WatchMode::VIEW;
    } else if (key.kind == KeyKind::ENTER) {
        find_drop_candidate(model);
    } else {
        edit(model.input, key);
    }
}

WatchAction press_in_drop_confirm(WatchModel& model, const Key& key) {
    model.mode = WatchMode::VIEW;
    if (key == Key{KeyKind::CHARACTER, 'y'} || key == Key{KeyKind::CHARACTER, 'Y'}) {
        return WatchAction::DROP;
    }
    model.drop_candidate.reset();
    model.drop_stream.reset();
    model.notice = "Nothing was dropped.";
    return WatchAction::NONE;
}

}  // namespace

WatchAction press_key(WatchModel& model, const Key& key) {
    switch (model.mode) {
        case WatchMode::VIEW:
            return press_in_view(model, key);
        case WatchMode::FILTER:
            press_in_filter(model, key);
            break;
        case WatchMode::HELP:
            model.mode = WatchMode::VIEW;
            break;
        case WatchMode::DROP_ID:
            press_in_drop_id(model, key);
            break;
        case WatchMode::DROP_CONFIRM:
            return press_in_drop_confirm(model, key);
    }
    return WatchAction::NONE;
}

void take_in(WatchModel& model, Listing listing) {
    keep_selection(model, [&] {
        add_rates(model.listing, listing);
        model.listing = std::move(listing);
        model.running = true;
        model.trouble.reset();
        arrange(model);
    });
}

void take_in(WatchModel& model, const Failure& failure) {
    model.running = false;
    model.trouble = failure;
    model.listing = Listing();
    model.streams.clear();
    model.stream_cursor = TableCursor();
    model.connection_cursor = TableCursor();
}

std::vector<const Connection*> shown_connections(const WatchModel& model) {
    std::vector<const Connection*> shown = pointers_to(model.listing.connections);
    std::erase_if(shown, [&model](const Connection* c) {
        return !matches(model.selection, *c) ||
               (!model.filter.empty() && !contains(c->stream, model.filter) &&
                !contains(c->mode, model.filter) && !contains(c->address, model.filter));
    });
    return shown;
}

std::vector<const StreamSummary*> shown_streams(const WatchModel& model) {
    const std::vector<const Connection*> connections = shown_connections(model);
    std::vector<const StreamSummary*> shown = pointers_to(model.streams);
    const bool everything = model.selection.is_everything() && model.filter.empty();
    std::erase_if(shown, [&](const StreamSummary* s) {
        return !everything && std::none_of(connections.begin(), connections.end(),
                                           [s](const Connection* c) { return c->stream == s->stream; });
    });
    return shown;
}

bool keys_are_for_streams(const WatchModel& model) {
    return model.view == WatchView::STREAMS || (model.view == WatchView::BOTH && model.streams_have_keys);
}
