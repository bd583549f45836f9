#include <algorithm>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/json_forms.h"
#include "tools/v9_rtmp_ctl/output.h"
#include "tools/v9_rtmp_ctl/selection.h"
#include "tools/v9_rtmp_ctl/table.h"
#include "tools/v9_rtmp_ctl/tables.h"

namespace {

// The server can filter by mode, but not for connections without one.
std::string mode_for_server(const Selection& selection) {
    return selection.mode && *selection.mode != "none" ? *selection.mode : std::string();
}

void print_table(const Settings& settings, const ListOptions& options,
                 const std::vector<Connection>& connections) {
    const OutputStyle style = find_output_style(settings);
    const TableStyle table_style{style.width, settings.unit};
    const Table table = options.sort == SortKey::RATE
                            ? connection_rate_table(pointers_to(connections), table_style, Keep::TOTALS)
                            : connection_table(pointers_to(connections), table_style);
    print_lines(layout_table(table, style.width, !options.no_legend), !options.no_legend, style);
    if (options.no_legend || settings.quiet) {
        return;
    }
    std::cout << connections.size()
              << (options.selection.is_everything() ? " of " + std::to_string(SLOT_COUNT) + " slots used"
                                                    : " listed")
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
            std::cout << list_json(connections, settings.unit) << '\n';
            break;
    }
}

}  // namespace

ExitCode run_list(const Settings& settings, const ListOptions& options) {
    ControlClient client(settings.socket_path, settings.timeout_us());
    Listing listing;
    const std::string mode = mode_for_server(options.selection);
    const std::optional<Failure> failure = options.sort == SortKey::RATE
                                               ? take_listing_with_rates(client, mode, listing)
                                               : take_listing(client, mode, listing);
    if (failure) {
        return report(*failure);
    }
    pick(options.selection, listing.connections);
    sort_connections(listing.connections, options.sort);
    if (options.reverse) {
        std::reverse(listing.connections.begin(), listing.connections.end());
    }
    print_connections(settings, options, listing.connections);
    if (listing.connections.empty() && !options.selection.is_everything()) {
        return report(
            {ExitCode::NEGATIVE_ANSWER,
             "no connection matches. 'v9_rtmp_ctl list' without --mode, --stream and --address shows "
             "them all."});
    }
    return ExitCode::DONE;
}
