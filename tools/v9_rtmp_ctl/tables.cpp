#include "tools/v9_rtmp_ctl/tables.h"

#include "tools/v9_rtmp_ctl/text.h"

namespace {

constexpr std::size_t MIN_NAME_WIDTH = 8;
constexpr std::size_t MIN_MODE_WIDTH = 4;
constexpr std::size_t MIN_ADDRESS_WIDTH = 8;

std::string or_dash(std::string text) {
    return text.empty() ? "-" : std::move(text);
}

std::string publisher_text(const StreamSummary& summary) {
    return summary.publisher_id
               ? std::to_string(*summary.publisher_id) + " " + escape_untrusted(summary.publisher_address)
               : "-";
}

}  // namespace

Table connection_table(const std::vector<Connection>& connections) {
    Table table;
    table.columns = {{"ID", Align::RIGHT, 0},
                     {"STREAM", Align::LEFT, MIN_NAME_WIDTH},
                     {"MODE", Align::LEFT, MIN_MODE_WIDTH},
                     {"SIZE", Align::RIGHT, 0},
                     {"SENT", Align::RIGHT, 0},
                     {"RECEIVED", Align::RIGHT, 0},
                     {"ADDRESS", Align::LEFT, MIN_ADDRESS_WIDTH}};
    for (const Connection& c : connections) {
        table.rows.push_back({std::to_string(c.id), or_dash(escape_untrusted(c.stream)),
                              or_dash(escape_untrusted(c.mode)), or_dash(size_text(c.size)),
                              format_bytes(c.bytes_sent), format_bytes(c.bytes_received),
                              or_dash(escape_untrusted(c.address))});
    }
    return table;
}

Table connection_rate_table(const std::vector<Connection>& connections) {
    Table table;
    table.columns = {{"ID", Align::RIGHT, 0},
                     {"STREAM", Align::LEFT, MIN_NAME_WIDTH},
                     {"MODE", Align::LEFT, MIN_MODE_WIDTH},
                     {"SENDING", Align::RIGHT, 0},
                     {"RECEIVING", Align::RIGHT, 0},
                     {"ADDRESS", Align::LEFT, MIN_ADDRESS_WIDTH}};
    for (const Connection& c : connections) {
        table.rows.push_back({std::to_string(c.id), or_dash(escape_untrusted(c.stream)),
                              or_dash(escape_untrusted(c.mode)), format_rate(c.sent_rate),
                              format_rate(c.received_rate), or_dash(escape_untrusted(c.address))});
    }
    return table;
}

Table stream_table(const std::vector<StreamSummary>& streams) {
    Table table;
    table.columns = {{"STREAM", Align::LEFT, MIN_NAME_WIDTH},
                     {"PUBLISHER", Align::LEFT, MIN_ADDRESS_WIDTH},
                     {"PLAYERS", Align::RIGHT, 0},
                     {"SIZE", Align::RIGHT, 0},
                     {"IN", Align::RIGHT, 0},
                     {"OUT", Align::RIGHT, 0},
                     {"RIVALS", Align::LEFT, MIN_MODE_WIDTH}};
    for (const StreamSummary& s : streams) {
        table.rows.push_back({escape_untrusted(s.stream), publisher_text(s), std::to_string(s.players),
                              or_dash(size_text(s.size)), format_rate(s.in_rate), format_rate(s.out_rate),
                              or_dash(id_list(s.rivals))});
    }
    return table;
}
