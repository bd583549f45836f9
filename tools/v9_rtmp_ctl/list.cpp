#include <iostream>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/json_forms.h"
#include "tools/v9_rtmp_ctl/output.h"
#include "tools/v9_rtmp_ctl/tables.h"

namespace {

// The server picks by mode, but it has no word for connections without one.
std::string mode_for_server(const ListOptions& options) {
    return options.mode && *options.mode != "none" ? *options.mode : std::string();
}

void pick(const ListOptions& options, std::vector<Connection>& connections) {
    std::erase_if(connections, [&options](const Connection& c) {
        return (options.mode == "none" && !c.mode.empty()) || (options.stream && c.stream != *options.stream);
    });
}

void print_table(const Settings& settings, const ListOptions& options,
                 const std::vector<Connection>& connections) {
    const OutputStyle style = find_output_style(settings);
    const Table table =
        options.sort == SortKey::RATE ? connection_rate_table(connections) : connection_table(connections);
    print_lines(layout_table(table, style.width, !options.no_legend), !options.no_legend, style);
    if (options.no_legend || settings.quiet) {
        return;
    }
    const bool all = !options.mode && !options.stream;
    std::cout << connections.size() << (all ? " of " + std::to_string(SLOT_COUNT) + " slots used" : " listed")
              << '\n';
}

void print_connections(const Settings& settings, const ListOptions& options,
                       const std::vector<Connection>& connections) {
    switch (settings.form) {
        case OutputForm::PEOPLE:
            print_table(settings, options, connections);
            break;
        case OutputForm::PLAIN:
            for (const Connection& connection : connections) {
                std::cout << plain_line(connection) << '\n';
            }
            break;
        case OutputForm::JSON:
            std::cout << list_json(connections) << '\n';
            break;
    }
}

}  // namespace

ExitCode run_list(const Settings& settings, const ListOptions& options) {
    ControlClient client(settings.socket_path, settings.timeout_us());
    Listing listing;
    const std::string mode = mode_for_server(options);
    const std::optional<Failure> failure = options.sort == SortKey::RATE
                                               ? take_listing_with_rates(client, mode, listing)
                                               : take_listing(client, mode, listing);
    if (failure) {
        return report(*failure);
    }
    pick(options, listing.connections);
    sort_connections(listing.connections, options.sort);
    print_connections(settings, options, listing.connections);
    if (listing.connections.empty() && (options.mode || options.stream)) {
        return report(
            {ExitCode::NEGATIVE_ANSWER,
             "no connection matches. 'v9_rtmp_ctl list' without --mode and --stream shows them all."});
    }
    return ExitCode::DONE;
}
