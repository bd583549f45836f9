#include <iostream>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/json_forms.h"
#include "tools/v9_rtmp_ctl/output.h"
#include "tools/v9_rtmp_ctl/stream_summary.h"
#include "tools/v9_rtmp_ctl/tables.h"

ExitCode run_streams(const Settings& settings) {
    ControlClient client(settings.socket_path, settings.timeout_us());
    Listing listing;
    if (const std::optional<Failure> failure = take_listing_with_rates(client, "", listing)) {
        return report(*failure);
    }
    const std::vector<StreamSummary> streams = summarize_streams(listing.connections, {}, SortKey::STREAM);
    switch (settings.form) {
        case OutputForm::PEOPLE: {
            const OutputStyle style = find_output_style(settings);
            print_lines(layout_table(stream_table(streams), style.width, true), true, style);
            break;
        }
        case OutputForm::PLAIN:
            for (const StreamSummary& summary : streams) {
                std::cout << plain_line(summary) << '\n';
            }
            break;
        case OutputForm::JSON:
            std::cout << streams_json(streams) << '\n';
            break;
    }
    return ExitCode::DONE;
}
