#include "tools/v9_rtmp_ctl/tables.h"

#include <limits>
#include <string>
#include <string_view>
#include <utility>

namespace {

constexpr std::size_t MIN_NAME_WIDTH = 8;
constexpr std::size_t MIN_MODE_WIDTH = 4;

std::string or_dash(std::string text) {
    return text.empty() ? "-" : std::move(text);
}

// Names may be megabytes long, so the part that does not fit into a line is dropped before escaping.
std::string name_text(const std::string& name, const TableStyle& style) {
    const std::size_t length = style.width ? *style.width + 1 : std::numeric_limits<std::size_t>::max();
    return or_dash(escape_untrusted(std::string_view(name).substr(0, length)));
}

std::string publisher_text(const StreamSummary& summary, bool with_address) {
    if (!summary.publisher_id) {
        return "-";
    }
    return std::to_string(*summary.publisher_id) + (summary.publisher_is_guess ? "?" : "") +
           (with_address ? " " + escape_untrusted(summary.publisher_address) : "");
}

// Returns a table with the first columns of every table of connections.
Table begin_connection_table() {
    Table table;
    table.columns = {{"ID", Align::RIGHT, 0},
                     {"STREAM", Align::LEFT, MIN_NAME_WIDTH},
                     {"MODE", Align::LEFT, MIN_MODE_WIDTH}};
    return table;
}

std::vector<std::string> begin_row(const Connection& c, const TableStyle& style) {
    return {std::to_string(c.id), name_text(c.stream, style), or_dash(escape_untrusted(c.mode))};
}

Table stream_table(const std::vector<const StreamSummary*>& streams, const TableStyle& style,
                   bool with_addresses) {
    Table table;
    table.columns = {{"STREAM", Align::LEFT, MIN_NAME_WIDTH},
                     {with_addresses ? "PUBLISHER" : "PUB", Align::LEFT, 0},
                     {"PLAYERS", Align::RIGHT, 0, 1},
                     {"SIZE", Align::RIGHT, 0, 3},
                     {"IN", Align::RIGHT, 0},
                     {"OUT", Align::RIGHT, 0},
                     {"RIVALS", Align::LEFT, MIN_MODE_WIDTH, 2}};
    for (const StreamSummary* s : streams) {
        table.rows.push_back({name_text(s->stream, style), publisher_text(*s, with_addresses),
                              std::to_string(s->players), or_dash(size_text(s->size)),
                              format_rate(s->in_rate, style.unit), format_rate(s->out_rate, style.unit),
                              or_dash(id_list(s->rivals))});
    }
    return table;
}

}  // namespace

Table connection_table(const std::vector<const Connection*>& connections, const TableStyle& style) {
    Table table = begin_connection_table();
    table.columns.insert(table.columns.end(), {{"SIZE", Align::RIGHT, 0, 3},
                                               {"SENT", Align::RIGHT, 0, 2},
                                               {"RECEIVED", Align::RIGHT, 0, 2},
                                               {"ADDRESS", Align::LEFT, 0, 1}});
    for (const Connection* c : connections) {
        std::vector<std::string> row = begin_row(*c, style);
        row.insert(row.end(), {or_dash(size_text(c->size)), format_bytes(c->bytes_sent),
                               format_bytes(c->bytes_received), or_dash(escape_untrusted(c->address))});
        table.rows.push_back(std::move(row));
    }
    return table;
}

Table connection_rate_table(const std::vector<const Connection*>& connections, const TableStyle& style,
                            Keep keep) {
    const unsigned address_rank = keep == Keep::ADDRESSES ? 1 : 3;
    const unsigned totals_rank = keep == Keep::ADDRESSES ? 3 : 1;
    Table table = begin_connection_table();
    table.columns.insert(table.columns.end(), {{"SIZE", Align::RIGHT, 0, 2},
                                               {"SENT", Align::RIGHT, 0, totals_rank},
                                               {"RECEIVED", Align::RIGHT, 0, totals_rank},
                                               {"SENDING", Align::RIGHT, 0},
                                               {"RECEIVING", Align::RIGHT, 0},
                                               {"ADDRESS", Align::LEFT, 0, address_rank}});
    for (const Connection* c : connections) {
        std::vector<std::string> row = begin_row(*c, style);
        row.insert(row.end(),
                   {or_dash(size_text(c->size)), format_bytes(c->bytes_sent), format_bytes(c->bytes_received),
                    format_rate(c->sent_rate, style.unit), format_rate(c->received_rate, style.unit),
                    or_dash(escape_untrusted(c->address))});
        table.rows.push_back(std::move(row));
    }
    return table;
}

Table stream_table(const std::vector<const StreamSummary*>& streams, const TableStyle& style) {
    Table table = stream_table(streams, style, true);
    return !style.width || fits_comfortably(table, *style.width) ? table
                                                                 : stream_table(streams, style, false);
}
