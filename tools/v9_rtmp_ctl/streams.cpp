#include <algorithm>
#include <iostream>
#include <optional>
#include <vector>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/json_forms.h"
#include "tools/v9_rtmp_ctl/output.h"
#include "tools/v9_rtmp_ctl/selection.h"
#include "tools/v9_rtmp_ctl/stream_summary.h"
#include "tools/v9_rtmp_ctl/table.h"
#include "tools/v9_rtmp_ctl/tables.h"

namespace {

void print_table(const Settings& settings, const StreamsOptions& options,
                 const std::vector<StreamSummary>& streams) {
    const OutputStyle style = find_output_style(settings);
    const Table table = stream_table(pointers_to(streams), {style.width, settings.unit});
    print_lines(layout_table(table, style.width, !options.no_legend), !options.no_legend, style);
    const bool has_guess = std::any_of(streams.begin(), streams.end(),
                                       [](const StreamSummary& s) { return s.publisher_is_guess; });
    if (has_guess && !options.no_legend && !settings.quiet) {
        std::cout << "? marks a guess: the server does not report which publisher it relays.\n";
    }
}

void print_streams(const Settings& settings, const StreamsOptions& options,
                   const std::vector<StreamSummary>& streams) {
    switch (settings.form) {
        case OutputForm::PEOPLE:
            print_table(settings, options, streams);
            break;
        case OutputForm::PLAIN:
            for (const StreamSummary& summary : streams) {
                std::cout << plain_line(summary, settings.unit) << '\n';
            }
            break;
        case OutputForm::JSON:
            std::cout << streams_json(streams, settings.unit) << '\n';
            break;
    }
}

}  // namespace

ExitCode run_streams(const Settings& settings, const StreamsOptions& options) {
    ControlClient client(settings.socket_path, settings.timeout_us());
    Listing listing;
    if (const std::optional<Failure> failure = take_listing_with_rates(client, "", listing)) {
        return report(*failure);
    }
    pick({options.names, {}, std::nullopt}, listing.connections);
    std::vector<StreamSummary> streams = summarize_streams(listing.connections, {}, options.sort);
    if (options.reverse) {
        std::reverse(streams.begin(), streams.end());
    }
    print_streams(settings, options, streams);
    if (streams.empty() && !options.names.empty()) {
        return report({ExitCode::NEGATIVE_ANSWER,
                       "no stream has such a name. 'v9_rtmp_ctl streams' without a name shows them all."});
    }
    return ExitCode::DONE;
}
