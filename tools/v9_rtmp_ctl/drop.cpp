#include <unistd.h>

#include <algorithm>
#include <iostream>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/drop_rules.h"
#include "tools/v9_rtmp_ctl/json_forms.h"
#include "tools/v9_rtmp_ctl/output.h"
#include "tools/v9_rtmp_ctl/tables.h"
#include "tools/v9_rtmp_ctl/text.h"

namespace {

void print_dropped(const Settings& settings, unsigned dropped, const std::string& what,
                   const std::string& server_message) {
    switch (settings.form) {
        case OutputForm::PEOPLE:
            if (!settings.quiet) {
                std::cout << "dropped " << what << '\n';
            }
            break;
        case OutputForm::PLAIN:
            std::cout << dropped << '\n';
            break;
        case OutputForm::JSON:
            std::cout << drop_json(dropped, false, server_message) << '\n';
            break;
    }
}

std::string connections_text(std::size_t count) {
    return std::to_string(count) + (count == 1 ? " connection" : " connections");
}

bool answered_yes(const std::string& question) {
    std::cout.flush();
    std::cerr << question << " [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "Y" || answer == "yes";
}

// Asks on a terminal. Where nobody can be asked, force has to say yes beforehand.
std::optional<Failure> confirm(const DropOptions& options, const std::string& question) {
    if (options.force) {
        return std::nullopt;
    }
    if (isatty(STDIN_FILENO) == 0 || isatty(STDERR_FILENO) == 0) {
        return Failure{
            ExitCode::USAGE,
            "nothing was dropped: nobody can be asked here. Add --force to drop without a question."};
    }
    if (!answered_yes(question)) {
        return Failure{ExitCode::NEGATIVE_ANSWER, "nothing was dropped. Answer y next time, or add --force."};
    }
    return std::nullopt;
}

void print_dry_run(const Settings& settings, const std::vector<Connection>& connections) {
    switch (settings.form) {
        case OutputForm::PEOPLE: {
            const OutputStyle style = find_output_style(settings);
            print_lines(layout_table(connection_table(connections), style.width, true), true, style);
            std::cout << "would drop " << connections_text(connections.size()) << '\n';
            break;
        }
        case OutputForm::PLAIN:
            for (const Connection& connection : connections) {
                std::cout << plain_line(connection) << '\n';
            }
            break;
        case OutputForm::JSON:
            std::cout << drop_json(static_cast<unsigned>(connections.size()), true, std::nullopt) << '\n';
            break;
    }
}

ExitCode send_drop_by_name(const Settings& settings, ControlClient& client, const std::string& stream,
                           const Failure& nothing_matched) {
    Reply reply;
    if (const std::optional<Failure> failure =
            client.call({"drop connection by stream name", {stream}}, reply)) {
        return report(*failure);
    }
    if (reply.status != COMM_SOCKET_V4_STATUS_SUCCESS) {
        return report(refused_by_server(reply.message));
    }
    const std::optional<unsigned> dropped = dropped_count(reply.message);
    if (!dropped) {
        return report(unreadable_reply("'" + reply.message + "' is no answer to a drop"));
    }
    if (*dropped == 0) {
        return report(nothing_matched);
    }
    print_dropped(settings, *dropped, connections_text(*dropped), reply.message);
    return ExitCode::DONE;
}

// Of an empty name: the connections that have chosen no stream.
ExitCode drop_by_name(const Settings& settings, const DropOptions& options, const std::string& stream,
                      const std::string& whose, const Failure& nothing_matched) {
    ControlClient client(settings.socket_path, settings.timeout_us());
    Listing listing;
    if (const std::optional<Failure> failure = take_listing(client, "", listing)) {
        return report(*failure);
    }
    std::erase_if(listing.connections, [&stream](const Connection& c) { return c.stream != stream; });
    if (listing.connections.empty()) {
        return report(nothing_matched);
    }
    if (options.dry_run) {
        print_dry_run(settings, listing.connections);
        return ExitCode::DONE;
    }
    const std::string question = "Drop " + connections_text(listing.connections.size()) + " " + whose + "?";
    if (const std::optional<Failure> failure = confirm(options, question)) {
        return report(*failure);
    }
    return send_drop_by_name(settings, client, stream, nothing_matched);
}

// The name that guards the drop of id against the slot having been given to somebody else in between. Empty
// when the connection has none.
std::optional<Failure> find_guard(ControlClient& client, unsigned id, std::string& guard) {
    Listing listing;
    if (std::optional<Failure> failure = take_listing(client, "", listing)) {
        return failure;
    }
    const auto found = std::find_if(listing.connections.begin(), listing.connections.end(),
                                    [id](const Connection& c) { return c.id == id; });
    if (found == listing.connections.end()) {
        return no_such_connection(id);
    }
    guard = found->stream;
    return std::nullopt;
}

}  // namespace

ExitCode run_drop_id(const Settings& settings, const DropOptions& options) {
    const std::optional<unsigned> id = parse_connection_id(options.id);
    if (!id) {
        return report(bad_connection_id(options.id));
    }
    std::string guard = options.expected_stream.value_or("");
    if (options.expected_stream && guard.empty()) {
        return report(
            {ExitCode::USAGE, "an empty --stream protects nothing. Name the stream, or leave --stream out."});
    }
    ControlClient client(settings.socket_path, settings.timeout_us());
    if (guard.empty()) {
        if (const std::optional<Failure> failure = find_guard(client, *id, guard)) {
            return report(*failure);
        }
    }
    Reply reply;
    if (const std::optional<Failure> failure = client.call(drop_id_request(*id, guard), reply)) {
        return report(*failure);
    }
    if (const std::optional<Failure> failure = judge_drop_id(*id, guard, reply)) {
        return report(*failure);
    }
    print_dropped(settings, 1,
                  "connection " + std::to_string(*id) +
                      (guard.empty() ? std::string() : " of stream '" + escape_untrusted(guard) + "'"),
                  reply.message);
    return ExitCode::DONE;
}

ExitCode run_drop_stream(const Settings& settings, const DropOptions& options) {
    if (options.stream.empty()) {
        return report(
            {ExitCode::USAGE,
             "the empty stream name stands for every connection that has not chosen a stream. If these are "
             "meant, use 'v9_rtmp_ctl drop unnamed'."});
    }
    const std::string name = escape_untrusted(options.stream);
    return drop_by_name(settings, options, options.stream, "of stream '" + name + "'",
                        {ExitCode::NEGATIVE_ANSWER, "no connection publishes or plays '" + name +
                                                        "'. 'v9_rtmp_ctl streams' shows the names in use."});
}

ExitCode run_drop_unnamed(const Settings& settings, const DropOptions& options) {
    return drop_by_name(
        settings, options, "", "without a stream",
        {ExitCode::NEGATIVE_ANSWER, "every connection has chosen a stream. 'v9_rtmp_ctl list' shows them."});
}
