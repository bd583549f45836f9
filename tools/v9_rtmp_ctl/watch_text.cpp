#include "tools/v9_rtmp_ctl/watch_text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>

#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/stream_summary.h"
#include "tools/v9_rtmp_ctl/text.h"

namespace {

// Returns the first text that fits, or else the last.
std::string first_that_fits(const std::vector<std::string>& texts, std::size_t columns) {
    const auto found = std::find_if(texts.begin(), texts.end(),
                                    [columns](const std::string& text) { return text.size() <= columns; });
    return found == texts.end() ? texts.back() : *found;
}

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

struct Totals {
    std::uint64_t sent = 0;
    std::uint64_t received = 0;
    std::optional<double> sent_rate;
    std::optional<double> received_rate;
};

Totals sum_up(const std::vector<const Connection*>& connections) {
    Totals totals;
    for (const Connection* c : connections) {
        totals.sent += c->bytes_sent.value_or(0);
        totals.received += c->bytes_received.value_or(0);
        add_rate(totals.sent_rate, c->sent_rate);
        add_rate(totals.received_rate, c->received_rate);
    }
    return totals;
}

std::string question(const WatchModel& model) {
    if (model.drop_stream) {
        const auto& connections = model.listing.connections;
        const auto count =
            std::count_if(connections.begin(), connections.end(),
                          [&model](const Connection& c) { return c.stream == *model.drop_stream; });
        return "Drop " +
               (count == 1 ? "the only connection" : "all " + std::to_string(count) + " connections") +
               " of stream '" + escape_untrusted(*model.drop_stream) + "'? [y/N]";
    }
    const Connection& c = *model.drop_candidate;
    const std::string stream = c.stream.empty()
                                   ? "without a stream"
                                   : escape_untrusted(c.mode) + " '" + escape_untrusted(c.stream) + "'";
    const bool may_be_relayed =
        c.mode == "publish" &&
        std::any_of(model.streams.begin(), model.streams.end(),
                    [&c](const StreamSummary& s) { return s.publisher_is_guess && s.stream == c.stream; });
    return "Drop connection " + std::to_string(c.id) + ", " + stream + ", " + escape_untrusted(c.address) +
           "?" + (may_be_relayed ? " It may be the one relayed." : "") + " [y/N]";
}

}  // namespace

std::string heading_text(const WatchModel& model, std::size_t columns) {
    const std::string name = "v9_rtmp_ctl ";
    if (!model.running) {
        const char* const state = !model.trouble                                      ? "asking the server"
                                  : model.trouble->exit_code == ExitCode::NOT_RUNNING ? "not running"
                                                                                      : "no answer";
        return name + model.clock + "  " + state;
    }
    std::size_t publishing = 0;
    std::size_t playing = 0;
    for (const Connection& c : model.listing.connections) {
        publishing += c.mode == "publish" ? 1 : 0;
        playing += c.mode == "play" ? 1 : 0;
    }
    const std::size_t used = model.listing.connections.size();
    const std::string slots = std::to_string(used) + " of " + std::to_string(SLOT_COUNT) + " slots used";
    const std::string modes =
        ": " + std::to_string(publishing) + " publish, " + std::to_string(playing) + " play";
    const std::string idle = ", " + std::to_string(used - publishing - playing) + " idle";
    const std::string clock = model.clock + "  ";
    return first_that_fits({name + clock + slots + modes + idle, clock + slots + modes + idle,
                            clock + slots + modes, clock + slots, slots},
                           columns);
}

std::string totals_text(const WatchModel& model, std::size_t columns) {
    const std::vector<const Connection*> shown = shown_connections(model);
    const Totals totals = sum_up(shown);
    std::string begin = model.paused ? "PAUSED  " : "";
    if (!model.filter.empty()) {
        begin += "filter '" + model.filter + "'  ";
    }
    if (!model.filter.empty() || !model.selection.is_everything()) {
        begin += std::to_string(shown.size()) + " shown  ";
    }
    const std::string in = "in " + format_rate(totals.received_rate, model.unit);
    const std::string out = "  out " + format_rate(totals.sent_rate, model.unit);
    const std::string order =
        std::string("  sort ") + sort_name(model.sort) + (model.reversed ? ", reversed" : "");
    return first_that_fits({begin + in + " (" + format_bytes(totals.received) + ")" + out + " (" +
                                format_bytes(totals.sent) + ")" + order,
                            begin + in + out + order, begin + in + out},
                           columns);
}

std::string foot_text(const WatchModel& model, std::size_t columns) {
    switch (model.mode) {
        case WatchMode::VIEW:
            break;
        case WatchMode::FILTER:
            return "filter: " + model.filter + "_  (Enter keeps it, Esc restores the last one)";
        case WatchMode::HELP:
            return "any key closes the help";
        case WatchMode::DROP_ID:
            return "drop connection id: " + model.input + "_  (Enter, or Esc to leave)";
        case WatchMode::DROP_CONFIRM:
            return question(model);
    }
    constexpr std::array<const char*, 8> KEYS{"q quit", "s sort",    "p pause", "/ filter",
                                              "d drop", "Tab table", "v view",  "r reverse"};
    const std::string help = "? help";
    std::string text;
    for (const char* const key : KEYS) {
        const std::string longer = text + key + "  ";
        if (longer.size() + help.size() > columns) {
            break;
        }
        text = longer;
    }
    return text.empty() ? KEYS.front() : text + help;
}

std::vector<std::string> help_texts() {
    return {"q           quit (Ctrl-C too)",
            "arrows      select a row; page keys, Home, End",
            "Tab         select in the other table",
            "d           drop the selection, or an id",
            "Esc         clear the selection",
            "v           streams, connections, or both",
            "s, r        sort by id, stream or rate; reverse",
            "/           show only rows that contain some text",
            "u           rates in bits or in bytes",
            "t           totals or addresses, if only one fits",
            "p, space    pause, continue",
            "",
            "RIVALS publish the same name as the publisher.",
            "A rival replaces a publisher silent for 2.5 s.",
            "A publisher with ? is a guess: the server does",
            "not report which one it relays."};
}
