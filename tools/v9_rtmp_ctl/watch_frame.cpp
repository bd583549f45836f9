#include "tools/v9_rtmp_ctl/watch_frame.h"

#include <algorithm>

#include "tools/v9_rtmp_ctl/tables.h"
#include "tools/v9_rtmp_ctl/text.h"

namespace {

using Lines = std::vector<FrameLine>;

// Titles and a line below them: less of a table says nothing.
constexpr std::size_t MIN_TABLE_ROWS = 2;
constexpr std::size_t HEAD_ROWS = 2;

const char* sort_name(SortKey key) {
    switch (key) {
        case SortKey::ID:
            return "id";
        case SortKey::STREAM:
            return "stream";
        case SortKey::RATE:
            return "rate";
    }
    return "";
}

std::string summary_text(const WatchModel& model) {
    if (!model.running) {
        return !model.trouble                                      ? "asking the server"
               : model.trouble->exit_code == ExitCode::NOT_RUNNING ? "not running"
                                                                   : "no answer";
    }
    std::size_t publishing = 0;
    std::size_t playing = 0;
    for (const Connection& c : model.listing.connections) {
        publishing += c.mode == "publish" ? 1 : 0;
        playing += c.mode == "play" ? 1 : 0;
    }
    const std::size_t used = model.listing.connections.size();
    return std::to_string(used) + " of " + std::to_string(SLOT_COUNT) +
           " slots used: " + std::to_string(publishing) + " publish, " + std::to_string(playing) + " play, " +
           std::to_string(used - publishing - playing) + " neither";
}

struct Totals {
    std::uint64_t sent = 0;
    std::uint64_t received = 0;
    std::optional<double> sent_rate;
    std::optional<double> received_rate;
};

void add(std::optional<double>& sum, const std::optional<double>& rate) {
    if (rate) {
        sum = sum.value_or(0) + *rate;
    }
}

Totals sum_up(const std::vector<Connection>& connections) {
    Totals totals;
    for (const Connection& c : connections) {
        totals.sent += c.bytes_sent.value_or(0);
        totals.received += c.bytes_received.value_or(0);
        add(totals.sent_rate, c.sent_rate);
        add(totals.received_rate, c.received_rate);
    }
    return totals;
}

std::string totals_text(const WatchModel& model) {
    const Totals totals = sum_up(model.listing.connections);
    std::string text = model.paused ? "PAUSED  " : "";
    if (!model.filter.empty()) {
        text += "filter '" + model.filter + "'  ";
    }
    return text + "in " + format_rate(totals.received_rate) + " (" + format_bytes(totals.received) +
           ")  out " + format_rate(totals.sent_rate) + " (" + format_bytes(totals.sent) + ")  sort " +
           sort_name(model.sort);
}

void append_head(const WatchModel& model, Lines& lines) {
    lines.push_back({"v9_rtmp_ctl " + model.clock + "  " + summary_text(model), LineStyle::HEADING});
    lines.push_back({totals_text(model), model.paused ? LineStyle::ALERT : LineStyle::PLAIN});
}

std::string foot_text(const WatchModel& model) {
    switch (model.mode) {
        case WatchMode::VIEW:
            return "q quit  s sort  p pause  / filter  d drop  arrows scroll  ? help";
        case WatchMode::FILTER:
            return "filter: " + model.filter + "_  (Enter keeps it, Esc goes back)";
        case WatchMode::HELP:
            return "any key goes back";
        case WatchMode::DROP_ID:
            return "drop connection id: " + model.input + "_  (Enter, or Esc to leave)";
        case WatchMode::DROP_CONFIRM:
            break;
    }
    const Connection& c = *model.drop_candidate;
    const std::string stream = c.stream.empty()
                                   ? "without a stream"
                                   : escape_untrusted(c.mode) + " '" + escape_untrusted(c.stream) + "'";
    return "Drop connection " + std::to_string(c.id) + ", " + stream + ", " + escape_untrusted(c.address) +
           "? [y/N]";
}

Lines help_lines() {
    Lines lines;
    for (const char* text :
         {"", "q             quit (Ctrl-C too)", "s             sort by id, stream or rate",
          "p, space      pause, and go on",
          "/             show only what contains a text in its stream, mode or address",
          "d             drop a connection; asks first",
          "arrows, page  scroll the connections; Home goes to the first", "",
          "Rates are of the last interval. RIVALS publish a name that is published already;",
          "one of them takes over when that publisher sends nothing for 2.5 s."}) {
        lines.push_back({text, LineStyle::PLAIN});
    }
    return lines;
}

// A text of several lines, broken at blanks where it can be.
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

// The titles and those rows from first on that fit into room lines, the last of which says how many more
// there are if there are more.
void append_table(const Table& table, std::optional<std::size_t> columns, std::size_t first, std::size_t room,
                  Lines& lines) {
    std::vector<std::string> text = layout_table(table, columns, true);
    if (room == 0) {
        return;
    }
    lines.push_back({text[0], LineStyle::TITLES});
    text.erase(text.begin(), text.begin() + 1 + static_cast<std::ptrdiff_t>(first));
    const bool cut = text.size() > room - 1;
    const std::size_t shown = cut ? room - std::min<std::size_t>(room, 2) : text.size();
    for (std::size_t i = 0; i < shown; ++i) {
        lines.push_back({text[i], LineStyle::PLAIN});
    }
    if (cut && room > 1) {
        lines.push_back({"... " + std::to_string(text.size() - shown) + " more", LineStyle::PLAIN});
    }
}

// Rows of the frame that the table of the streams gets.
std::size_t stream_room(std::size_t streams, std::size_t connections, std::size_t room) {
    const std::size_t wanted = streams + 1;
    const std::size_t left_over =
        room - std::min(room, connections + 2);  // the connections' titles and a gap
    const std::size_t granted = std::min(wanted, std::max(left_over, room / 2));
    return granted < MIN_TABLE_ROWS || room < 2 * MIN_TABLE_ROWS + 1 ? 0 : granted;
}

// How the rows between head and foot are shared out.
struct Rooms {
    std::size_t streams = 0;      // titles included; 0: no table
    std::size_t connections = 0;  // titles included
    std::size_t last_scroll = 0;  // the last page stays full
};

Rooms share_out(std::size_t streams, std::size_t connections, std::size_t room) {
    Rooms rooms;
    rooms.streams = streams == 0 ? 0 : stream_room(streams, connections, room);
    rooms.connections = room - (rooms.streams == 0 ? 0 : rooms.streams + 1);
    const std::size_t page = rooms.connections > 1 ? rooms.connections - 1 : 1;
    rooms.last_scroll = connections > page ? connections - page : 0;
    return rooms;
}

std::size_t body_room(const ScreenSize& size) {
    constexpr std::size_t OTHER_ROWS = HEAD_ROWS + 2;  // a gap, and the foot
    return size.rows > OTHER_ROWS ? size.rows - OTHER_ROWS : 0;
}

void append_tables(const WatchModel& model, const ScreenSize& size, Lines& lines) {
    const std::vector<StreamSummary> streams = shown_streams(model);
    const std::vector<Connection> connections = shown_connections(model);
    const Rooms rooms = share_out(streams.size(), connections.size(), body_room(size));
    if (rooms.streams != 0) {
        append_table(stream_table(streams), size.columns, 0, rooms.streams, lines);
        lines.push_back({"", LineStyle::PLAIN});
    }
    append_table(connection_rate_table(connections), size.columns, std::min(model.scroll, rooms.last_scroll),
                 rooms.connections, lines);
}

void append_body(const WatchModel& model, const ScreenSize& size, Lines& lines) {
    if (model.mode == WatchMode::HELP) {
        const Lines help = help_lines();
        lines.insert(lines.end(), help.begin(), help.end());
    } else if (model.running) {
        append_tables(model, size, lines);
    } else if (model.trouble) {
        lines.push_back({"", LineStyle::PLAIN});
        const Lines trouble = wrapped(model.trouble->message, size.columns, LineStyle::ALERT);
        lines.insert(lines.end(), trouble.begin(), trouble.end());
        lines.push_back({"Trying again.", LineStyle::PLAIN});
    }
}

const char* style_sequence(LineStyle style) {
    switch (style) {
        case LineStyle::PLAIN:
            break;
        case LineStyle::HEADING:
            return "\x1b[1m";
        case LineStyle::TITLES:
            return "\x1b[4m";
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
    const bool has_notice = model.mode == WatchMode::VIEW && !model.notice.empty();
    // A notice says at its end what to do next, so it gets the rows that it needs.
    Lines foot = has_notice ? wrapped(model.notice, size.columns, LineStyle::FOOT)
                            : Lines{{foot_text(model), LineStyle::FOOT}};
    foot.resize(std::min(foot.size(), rows));
    const std::size_t foot_row = rows - foot.size();
    const ScreenSize rest{foot_row + 1, size.columns};

    Lines lines;
    append_head(model, lines);
    if (body_room(rest) > 0) {
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

std::size_t last_scroll(const WatchModel& model, const ScreenSize& size) {
    return share_out(shown_streams(model).size(), shown_connections(model).size(), body_room(size))
        .last_scroll;
}

std::vector<FrameLine> render_endless_frame(const WatchModel& model) {
    Lines lines;
    append_head(model, lines);
    if (!model.running) {
        lines.push_back({model.trouble ? model.trouble->message : std::string(), LineStyle::ALERT});
        return lines;
    }
    lines.push_back({"", LineStyle::PLAIN});
    const std::vector<StreamSummary> streams = shown_streams(model);
    const std::vector<Connection> connections = shown_connections(model);
    append_table(stream_table(streams), std::nullopt, 0, streams.size() + 1, lines);
    lines.push_back({"", LineStyle::PLAIN});
    append_table(connection_rate_table(connections), std::nullopt, 0, connections.size() + 1, lines);
    return lines;
}

// Each line is erased before it is written: after a full one the cursor still stands on its last character.
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
