// drop stream and drop unnamed, and the code shared with drop address.
#include "tools/v9_rtmp_ctl/drop_by_selection.h"

#include <comm_socket_v4.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/drop_output.h"
#include "tools/v9_rtmp_ctl/drop_rules.h"
#include "tools/v9_rtmp_ctl/json_forms.h"
#include "tools/v9_rtmp_ctl/selection.h"
#include "tools/v9_rtmp_ctl/tables.h"
#include "tools/v9_rtmp_ctl/text.h"

namespace {

std::optional<Failure> drop_name(ControlClient& client, const std::string& name, DropResult& result) {
    Reply reply;
    if (std::optional<Failure> failure = client.call({"drop connection by stream name", {name}}, reply)) {
        return failure;
    }
    if (reply.status != COMM_SOCKET_V4_STATUS_SUCCESS) {
        return refused_by_server(reply.message);
    }
    const std::optional<unsigned> dropped = dropped_count(reply.message);
    if (!dropped) {
        return unreadable_reply("'" + reply.message + "' is an unexpected reply to a drop");
    }
    result.dropped += *dropped;
    result.message = reply.message;
    return std::nullopt;
}

// Drops all connections of these stream names, including those that joined after the list was
// requested. The empty name stands for connections without a stream.
ExitCode drop_names(const Settings& settings, ControlClient& client, const std::set<std::string>& names,
                    const Failure& nothing_matched) {
    DropResult result;
    ExitCode worst = ExitCode::DONE;
    for (const std::string& name : names) {
        if (const std::optional<Failure> failure = drop_name(client, name, result)) {
            const bool is_unknown = failure->exit_code == ExitCode::NO_REPLY;
            worst = worse_of(worst, report(is_unknown ? with_drop_warning(*failure) : *failure));
        }
    }
    if (names.size() > 1) {
        result.message.reset();
    }
    if (result.dropped != 0) {
        print_dropped(settings, result, "dropped " + connections_text(result.dropped) + "\n");
    }
    return result.dropped == 0 && worst == ExitCode::DONE ? report(nothing_matched) : worst;
}

// Removes connections that changed while the user was being asked, and reports them.
ExitCode leave_out_changed(ControlClient& client, std::vector<Connection>& connections) {
    Listing listing;
    if (const std::optional<Failure> failure = take_listing(client, "", listing)) {
        connections.clear();
        return report(*failure);
    }
    ExitCode worst = ExitCode::DONE;
    std::erase_if(connections, [&](const Connection& candidate) {
        const std::optional<Failure> failure = judge_candidate(candidate, listing.connections);
        worst = failure ? worse_of(worst, report(*failure)) : worst;
        return failure.has_value();
    });
    return worst;
}

bool drops_whole_streams(const Selection& selection) {
    return !selection.streams.empty() && selection.addresses.empty() && !selection.mode;
}

// Reports the names and patterns that match no connection.
ExitCode report_unmatched(const Selection& selection, const std::vector<Connection>& connections) {
    ExitCode worst = ExitCode::DONE;
    for (const std::string& name : selection.streams) {
        const bool is_there =
            std::any_of(connections.begin(), connections.end(),
                        [&name](const Connection& c) { return matches_name(name, c.stream); });
        if (!is_there) {
            worst = worse_of(worst, report({ExitCode::NEGATIVE_ANSWER,
                                            "no connection publishes or plays '" + escape_untrusted(name) +
                                                "'. 'v9_rtmp_ctl streams' shows the names in use."}));
        }
    }
    return worst;
}

}  // namespace

std::string addresses_text(const Selection& selection) {
    const std::vector<AddressRange>& ranges = selection.addresses;
    return ranges.size() == 1 && ranges[0].mask == UINT32_MAX ? "from this address" : "from these addresses";
}

ExitCode drop_by_selection(const Settings& settings, const DropOptions& options, const std::string& whose,
                           const Failure& nothing_matched) {
    ControlClient client(settings.socket_path, settings.timeout_us());
    Listing listing;
    if (const std::optional<Failure> failure = take_listing(client, "", listing)) {
        return report(*failure);
    }
    std::vector<Connection>& connections = listing.connections;
    pick(options.selection, connections);
    const bool whole_streams = drops_whole_streams(options.selection);
    ExitCode worst = whole_streams && options.selection.streams.size() > 1
                         ? report_unmatched(options.selection, connections)
                         : ExitCode::DONE;
    if (connections.empty()) {
        return worst == ExitCode::DONE ? report(nothing_matched) : worst;
    }
    if (options.dry_run) {
        print_dry_run(settings, pointers_to(connections));
        return worst;
    }
    const std::string question = "Drop " + connections_text(connections.size()) + " " + whose + "?";
    if (const std::optional<Failure> failure = confirm(options, question)) {
        return worse_of(worst, report(*failure));
    }
    if (whole_streams) {
        std::set<std::string> names;
        for (const Connection& connection : connections) {
            names.insert(connection.stream);
        }
        return worse_of(worst, drop_names(settings, client, names, nothing_matched));
    }
    if (!options.force) {
        worst = worse_of(worst, leave_out_changed(client, connections));
    }
    return connections.empty() ? worst : worse_of(worst, drop_connections(settings, client, connections));
}

ExitCode run_drop_stream(const Settings& settings, const DropOptions& options) {
    const std::vector<std::string>& names = options.selection.streams;
    if (std::find(names.begin(), names.end(), "") != names.end()) {
        return report({ExitCode::USAGE,
                       "the empty stream name stands for every connection that has not chosen a stream. If "
                       "you mean these, use 'v9_rtmp_ctl drop unnamed'."});
    }
    std::string list;
    for (const std::string& name : names) {
        list += (list.empty() ? "'" : ", '") + escape_untrusted(name) + "'";
    }
    const bool filtered = !drops_whole_streams(options.selection);
    return drop_by_selection(
        settings, options, (names.size() == 1 ? "of stream " : "of streams ") + list,
        {ExitCode::NEGATIVE_ANSWER, filtered ? "no connection matches. 'v9_rtmp_ctl list' shows them all."
                                             : "no connection publishes or plays " + list +
                                                   ". 'v9_rtmp_ctl streams' shows the names in use."});
}

ExitCode run_drop_unnamed(const Settings& settings, const DropOptions& options) {
    DropOptions unnamed = options;
    unnamed.selection.streams = {""};
    return drop_by_selection(settings, unnamed, "without a stream",
                             {ExitCode::NEGATIVE_ANSWER,
                              options.selection.addresses.empty()
                                  ? "every connection has chosen a stream. 'v9_rtmp_ctl list' shows them."
                                  : "no connection " + addresses_text(options.selection) +
                                        " is without a stream. 'v9_rtmp_ctl list' shows them all."});
}
