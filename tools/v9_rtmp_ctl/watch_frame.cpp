#include "tools/v9_rtmp_ctl/watch_frame.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string_view>

#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/stream_summary.h"
#include "tools/v9_rtmp_ctl/table.h"
#include "tools/v9_rtmp_ctl/tables.h"
#include "tools/v9_rtmp_ctl/text.h"
#include "tools/v9_rtmp_ctl/watch_text.h"

namespace {

using Lines = std::vector<FrameLine>;

// The titles and one row: fewer lines are not worth showing.
constexpr std::size_t MIN_TABLE_ROWS = 2;
constexpr std::size_t HEAD_ROWS = 2;

void append_head(const WatchModel& model, std::size_t columns, Lines& lines) {
    lines.push_back({heading_text(model, columns), LineStyle::HEADING});
    lines.push_back({totals_text(model, columns), model.paused ? LineStyle::ALERT : LineStyle::PLAIN});
}

// Returns the text in several lines, broken at blanks if possible.
Lines wrapped(const std::string& text, std::size_t columns, LineStyle style) {
    Lines lines;
    std::string_view rest = text;
    while (rest.size() > columns && columns > 0) {
        const std::size_t blank = rest.rfind(' ', columns);
        const bool breaks = blank != std::string_view::npos && blank > 0;
        const std::size_t length = breaks ? blank : columns;
        lines.push_back({std::string(rest.substr(0, length)), style});
        rest.remove_prefix(length + (breaks ? 1 : 0));
    }
    lines.push_back({std::string(rest), style});
    return lines;
}

// Returns how many rows, starting at first, are shown. The space below the titles is `room` lines. If more
// rows follow, the last line says how many.
std::size_t count_shown(std::size_t rows, std::size_t first, std::size_t room) {
    const std::size_t left = rows - first;
    return left <= room ? left : room - (room > 1 ? 1 : 0);
}

// Appends the titles and as many rows, starting at cursor.scroll, as fit into room lines. If a row is
// selected, every line begins with one more column, which marks that row.
void append_table(const Table& table, std::optional<std::size_t> columns, const TableCursor& cursor,
                  std::size_t room, Lines& lines) {
    if (room == 0) {
        return;
    }
    const bool marks = cursor.selected.has_value();
    const std::optional<std::size_t> width =
        columns && marks ? *columns - std::min<std::size_t>(*columns, 1) : columns;
    const std::vector<std::string> text = layout_table(table, width, true);
    const auto append = [&](const std::string& line, LineStyle style) {
        lines.push_back({(marks ? (style == LineStyle::SELECTED ? ">" : " ") : "") + line, style});
    };
    append(text[0], LineStyle::TITLES);
    const std::size_t rows = text.size() - 1;
    const std::size_t shown = count_shown(rows, cursor.scroll, room - 1);
    for (std::size_t row = cursor.scroll; row < cursor.scroll + shown; ++row) {
        append(text[row + 1], cursor.selected == row ? LineStyle::SELECTED : LineStyle::PLAIN);
    }
    const std::size_t more = rows - cursor.scroll - shown;
    if (more != 0 && shown + 1 < room) {
        append("... " + std::to_string(more) + " more", LineStyle::PLAIN);
    }
}

// Returns the number of frame rows for the stream table.
std::size_t stream_room(std::size_t streams, std::size_t connections, std::size_t room) {
    const std::size_t wanted = streams + 1;
    const std::size_t left_over =
        room - std::min(room, connections + 2);  // the connections' titles and a gap
    const std::size_t granted = std::min(wanted, std::max(left_over, room / 2));
    return granted < MIN_TABLE_ROWS || room < 2 * MIN_TABLE_ROWS + 1 ? 0 : granted;
}

// The rows between heading and foot.
struct Rooms {
    std::size_t streams = 0;      // titles included; 0: no table
    std::size_t connections = 0;  // the same
};

Rooms share_out(const WatchModel& model, std::size_t streams, std::size_t connections, std::size_t room) {
    switch (model.view) {
        case WatchView::BOTH:
            break;
        case WatchView::STREAMS:
            return {room, 0};
        case WatchView::CONNECTIONS:
            return {0, room};
    }
    Rooms rooms;
    rooms.streams = streams == 0 ? 0 : stream_room(streams, connections, room);
    rooms.connections = room - (rooms.streams == 0 ? 0 : rooms.streams + 1);
    return rooms;
}

std::size_t body_room(std::size_t rows) {
    constexpr std::size_t OTHER_ROWS = HEAD_ROWS + 2;  // a gap, and the foot
    return rows > OTHER_ROWS ? rows - OTHER_ROWS : 0;
}

// Scrolls so that the selected row is shown and the last page is full.
void settle_cursor(std::size_t rows, std::size_t room, TableCursor& cursor) {
    const std::size_t lines = room > 1 ? room - 1 : 1;
    cursor.page = lines > 2 ? lines - 1 : 1;
    if (rows == 0) {
        cursor = {std::nullopt, 0, cursor.page};
        return;
    }
    cursor.scroll = std::min(cursor.scroll, rows > lines ? rows - lines : 0);
    if (!cursor.selected) {
        return;
    }
    cursor.selected = std::min(*cursor.selected, rows - 1);
    cursor.scroll = std::min(cursor.scroll, *cursor.selected);
    while (*cursor.selected >= cursor.scroll + count_shown(rows, cursor.scroll, lines)) {
        ++cursor.scroll;
    }
}

void append_tables(const WatchModel& model, const ScreenSize& size, Lines& lines) {
    const std::vector<const StreamSummary*> streams = shown_streams(model);
    const std::vector<const Connection*> connections = shown_connections(model);
    const Rooms rooms = share_out(model, streams.size(), connections.size(), body_room(size.rows));
    const TableStyle style{size.columns, model.unit};
    TableCursor stream_cursor = model.stream_cursor;
    settle_cursor(streams.size(), rooms.streams, stream_cursor);
    append_table(stream_table(streams, style), size.columns, stream_cursor, rooms.streams, lines);
    if (rooms.streams != 0 && rooms.connections != 0) {
        lines.push_back({"", LineStyle::PLAIN});
    }
    TableCursor connection_cursor = model.connection_cursor;
    settle_cursor(connections.size(), rooms.connections, connection_cursor);
    append_table(connection_rate_table(connections, style, model.keep), size.columns, connection_cursor,
                 rooms.connections, lines);
}

void append_body(const WatchModel& model, const ScreenSize& size, Lines& lines) {
    if (model.mode == WatchMode::HELP) {
        for (const std::string& text : help_texts()) {
            lines.push_back({text, LineStyle::PLAIN});
        }
    } else if (model.running) {
        append_tables(model, size, lines);
    } else if (model.trouble) {
        lines.push_back({"", LineStyle::PLAIN});
        const Lines trouble = wrapped(model.trouble->message, size.columns, LineStyle::ALERT);
        lines.insert(lines.end(), trouble.begin(), trouble.end());
        lines.push_back({"Trying again.", LineStyle::PLAIN});
    }
}

// A notice may end with what to do next, and a question names what would be dropped, so both get as many rows
// as they need.
Lines foot_lines(const WatchModel& model, const ScreenSize& size) {
    const bool has_notice = model.mode == WatchMode::VIEW && !model.notice.empty();
    Lines foot =
        wrapped(has_notice ? model.notice : foot_text(model, size.columns), size.columns, LineStyle::FOOT);
    foot.resize(std::min(foot.size(), std::max<std::size_t>(size.rows, 1)));
    return foot;
}

const char* style_sequence(LineStyle style) {
    switch (style) {
        case LineStyle::PLAIN:
            break;
        case LineStyle::HEADING:
            return "\x1b[1m";
        case LineStyle::TITLES:
            return "\x1b[4m";
        case LineStyle::SELECTED:
            return "\x1b[1;7m";
        case LineStyle::ALERT:
            return "\x1b[1;31m";
        case LineStyle::FOOT:
            return "\x1b[7m";
    }
    return "";
}

}  // namespace

std::vector<FrameLine> render_frame(const WatchModel& model, const ScreenSize& size) {
    const std::size_t rows = std::max<std::size_t>(size.rows, 1);
    const Lines foot = foot_lines(model, size);
    const std::size_t foot_row = rows - foot.size();
    const ScreenSize rest{foot_row + 1, size.columns};

    Lines lines;
    append_head(model, size.columns, lines);
    if (body_room(rest.rows) > 0) {
        lines.push_back({"", LineStyle::PLAIN});
        append_body(model, rest, lines);
    }
    lines.resize(foot_row);
    lines.insert(lines.end(), foot.begin(), foot.end());
    for (FrameLine& line : lines) {
        line.text = cut_text(line.text, size.columns);
    }
    return lines;
}

void settle(WatchModel& model, const ScreenSize& size) {
    const std::size_t streams = shown_streams(model).size();
    const std::size_t connections = shown_connections(model).size();
    const std::size_t rows = std::max<std::size_t>(size.rows, 1);
    const Rooms rooms =
        share_out(model, streams, connections, body_room(rows - foot_lines(model, size).size() + 1));
    settle_cursor(streams, rooms.streams, model.stream_cursor);
    settle_cursor(connections, rooms.connections, model.connection_cursor);
}

std::vector<FrameLine> render_endless_frame(const WatchModel& model) {
    Lines lines;
    append_head(model, ANY_WIDTH, lines);
    if (!model.running) {
        lines.push_back({model.trouble ? model.trouble->message : std::string(), LineStyle::ALERT});
        return lines;
    }
    lines.push_back({"", LineStyle::PLAIN});
    const std::vector<const StreamSummary*> streams = shown_streams(model);
    const std::vector<const Connection*> connections = shown_connections(model);
    const TableStyle style{std::nullopt, model.unit};
    append_table(stream_table(streams, style), std::nullopt, {}, streams.size() + 1, lines);
    lines.push_back({"", LineStyle::PLAIN});
    append_table(connection_rate_table(connections, style, model.keep), std::nullopt, {},
                 connections.size() + 1, lines);
    return lines;
}

// Each line is erased before it is written: after a full line the cursor is still on its last character.
std::string paint_frame(const std::vector<FrameLine>& lines, bool color) {
    std::string bytes = "\x1b[H";
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const char* const style = color ? style_sequence(lines[i].style) : "";
        bytes += i == 0 ? "" : "\r\n";
        bytes += i + 1 == lines.size() ? "\x1b[J" : "\x1b[K";
        bytes += style + lines[i].text + (*style != '\0' ? "\x1b[0m" : "");
    }
    return bytes;
}
