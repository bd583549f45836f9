#include "tools/v9_rtmp_ctl/watch_model.h"

#include <algorithm>
#include <utility>

#include "tools/v9_rtmp_ctl/drop_rules.h"
#include "tools/v9_rtmp_ctl/text.h"

namespace {

constexpr std::size_t PAGE_ROWS = 10;
constexpr std::size_t MAX_INPUT_BYTES = 64;

void arrange(WatchModel& model) {
    sort_connections(model.listing.connections, model.sort);
    model.streams = summarize_streams(model.listing.connections, model.streams, model.sort);
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

void edit(std::string& text, const Key& key) {
    if (key.kind == KeyKind::CHARACTER && text.size() < MAX_INPUT_BYTES) {
        text += key.character;
    } else if (key.kind == KeyKind::BACKSPACE && !text.empty()) {
        text.pop_back();
    }
}

// Upwards it stops at the first connection. Downwards the frame stops it at the last one.
void scroll_by(WatchModel& model, const Key& key) {
    std::size_t rows = shown_connections(model).size();
    const std::size_t last = rows == 0 ? 0 : rows - 1;
    switch (key.kind) {
        case KeyKind::UP:
            model.scroll -= std::min<std::size_t>(model.scroll, 1);
            break;
        case KeyKind::PAGE_UP:
            model.scroll -= std::min(model.scroll, PAGE_ROWS);
            break;
        case KeyKind::DOWN:
            model.scroll = std::min(model.scroll + 1, last);
            break;
        case KeyKind::PAGE_DOWN:
            model.scroll = std::min(model.scroll + PAGE_ROWS, last);
            break;
        case KeyKind::HOME:
            model.scroll = 0;
            break;
        case KeyKind::CHARACTER:
        case KeyKind::ENTER:
        case KeyKind::ESCAPE:
        case KeyKind::BACKSPACE:
        case KeyKind::OTHER:
            break;
    }
}

WatchAction press_in_view(WatchModel& model, const Key& key) {
    model.notice.clear();
    if (key.kind != KeyKind::CHARACTER) {
        scroll_by(model, key);
        return WatchAction::NONE;
    }
    switch (key.character) {
        case 'q':
        case 'Q':
            return WatchAction::QUIT;
        case 's':
            model.sort = next_sort(model.sort);
            arrange(model);
            break;
        case 'p':
        case ' ':
            model.paused = !model.paused;
            break;
        case '/':
            model.filter_before = std::exchange(model.filter, "");
            model.mode = WatchMode::FILTER;
            break;
        case 'd':
            model.input.clear();
            model.mode = WatchMode::DROP_ID;
            break;
        case '?':
        case 'h':
            model.mode = WatchMode::HELP;
            break;
        default:
            break;
    }
    return WatchAction::NONE;
}

void press_in_filter(WatchModel& model, const Key& key) {
    model.scroll = 0;
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
    const std::vector<Connection>& connections = model.listing.connections;
    const auto found = std::find_if(connections.begin(), connections.end(),
                                    [&id](const Connection& c) { return c.id == *id; });
    if (found == connections.end()) {
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
    model.notice = "Nothing was dropped.";
    return WatchAction::NONE;
}

bool contains(const std::string& text, const std::string& part) {
    return escape_untrusted(text).find(part) != std::string::npos;
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
    add_rates(model.listing, listing);
    model.listing = std::move(listing);
    model.running = true;
    model.trouble.reset();
    arrange(model);
}

void take_in(WatchModel& model, const Failure& failure) {
    model.running = false;
    model.trouble = failure;
    model.listing = Listing();
    model.streams.clear();
    model.scroll = 0;
}

std::vector<Connection> shown_connections(const WatchModel& model) {
    std::vector<Connection> shown = model.listing.connections;
    std::erase_if(shown, [&model](const Connection& c) {
        return !contains(c.stream, model.filter) && !contains(c.mode, model.filter) &&
               !contains(c.address, model.filter);
    });
    return shown;
}

std::vector<StreamSummary> shown_streams(const WatchModel& model) {
    std::vector<StreamSummary> shown = model.streams;
    std::erase_if(shown, [&model](const StreamSummary& s) {
        return !contains(s.stream, model.filter) && !contains(s.publisher_address, model.filter);
    });
    return shown;
}
