// drop id and drop address: drop connections by their ids.
#include <algorithm>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/drop_batch.h"
#include "tools/v9_rtmp_ctl/drop_by_selection.h"
#include "tools/v9_rtmp_ctl/drop_output.h"
#include "tools/v9_rtmp_ctl/drop_rules.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/json_forms.h"
#include "tools/v9_rtmp_ctl/text.h"

namespace {

ExitCode report_worse(ExitCode so_far, const Failure& failure) {
    return worse_of(so_far, report(failure));
}

// Prints one line for each connection dropped, and the failure for each of the others.
ExitCode print_outcomes(const Settings& settings, const std::vector<DropOutcome>& outcomes) {
    DropResult result;
    result.ids.emplace();
    std::string lines;
    for (const DropOutcome& outcome : outcomes) {
        if (!outcome.failure) {
            ++result.dropped;
            result.ids->push_back(outcome.id);
            lines += "dropped connection " + std::to_string(outcome.id) +
                     (outcome.guard.empty() ? "" : " of stream " + quote_untrusted(outcome.guard)) + "\n";
        } else if (outcome.failure->exit_code == ExitCode::ANOTHER_CLIENT) {
            result.uncertain_ids.push_back(outcome.id);
        } else {
            continue;
        }
        result.message = outcome.message;
    }
    if (outcomes.size() > 1) {
        result.message.reset();
    }
    if (result.dropped != 0 || !result.uncertain_ids.empty()) {
        print_dropped(settings, result, lines);
    }
    ExitCode worst = ExitCode::DONE;
    for (const DropOutcome& outcome : outcomes) {
        worst = outcome.failure ? report_worse(worst, *outcome.failure) : worst;
    }
    return worst;
}

ExitCode drop_and_print(const Settings& settings, ControlClient& client,
                        const std::vector<DropTarget>& targets, bool unseen) {
    std::vector<DropOutcome> outcomes;
    const std::optional<Failure> failure =
        unseen ? drop_targets_unseen(client, targets, outcomes) : drop_targets(client, targets, outcomes);
    const ExitCode worst = print_outcomes(settings, outcomes);
    return failure ? report_worse(worst, *failure) : worst;
}

// Returns the words that are ids, each once. Reports the others.
std::vector<unsigned> read_ids(const std::vector<std::string>& words, ExitCode& worst) {
    std::vector<unsigned> ids;
    for (const std::string& word : words) {
        const std::optional<unsigned> id = parse_connection_id(word);
        if (!id) {
            worst = report_worse(worst, bad_connection_id(word));
        } else if (std::find(ids.begin(), ids.end(), *id) == ids.end()) {
            ids.push_back(*id);
        }
    }
    return ids;
}

// Looks the ids up. Reports those that are not listed or not on the stream the user expects.
std::optional<Failure> find_targets(ControlClient& client, const DropOptions& options,
                                    const std::vector<unsigned>& ids, std::vector<DropTarget>& targets,
                                    ExitCode& worst) {
    Listing listing;
    if (std::optional<Failure> failure = take_listing(client, "", listing)) {
        return failure;
    }
    for (const unsigned id : ids) {
        const Connection* const found = find_connection(listing.connections, id);
        if (found == nullptr) {
            worst = report_worse(worst, no_such_connection(id));
        } else if (options.expected_stream && *options.expected_stream != found->stream) {
            worst = report_worse(worst, not_of_stream(id, *options.expected_stream));
        } else {
            targets.push_back(target_of(*found));
        }
    }
    return std::nullopt;
}

}  // namespace

ExitCode drop_connections(const Settings& settings, ControlClient& client,
                          const std::vector<Connection>& connections) {
    std::vector<DropTarget> targets;
    std::transform(connections.begin(), connections.end(), std::back_inserter(targets), target_of);
    return drop_and_print(settings, client, targets, false);
}

ExitCode run_drop_id(const Settings& settings, const DropOptions& options) {
    if (options.expected_stream && options.expected_stream->empty()) {
        return report({ExitCode::USAGE, "--stream must not be empty. Name the stream, or omit --stream."});
    }
    ExitCode worst = ExitCode::DONE;
    const std::vector<unsigned> ids = read_ids(options.ids, worst);
    if (ids.empty()) {
        return worst;
    }
    ControlClient client(settings.socket_path, settings.timeout_us());
    std::vector<DropTarget> targets;
    // If a name is the guard, the ids need not be looked up first.
    if (options.no_list || (options.expected_stream && !options.dry_run)) {
        for (const unsigned id : ids) {
            targets.push_back({id, options.expected_stream.value_or(""), std::nullopt});
        }
    } else if (const std::optional<Failure> failure = find_targets(client, options, ids, targets, worst)) {
        return report_worse(worst, *failure);
    }
    if (targets.empty()) {
        return worst;
    }
    if (options.dry_run) {
        std::vector<const Connection*> connections;
        connections.reserve(targets.size());
        for (const DropTarget& target : targets) {
            connections.push_back(&*target.expected);
        }
        print_dry_run(settings, connections);
        return worst;
    }
    return worse_of(worst, drop_and_print(settings, client, targets, options.no_list));
}

ExitCode run_drop_address(const Settings& settings, const DropOptions& options) {
    return drop_by_selection(
        settings, options, addresses_text(options.selection),
        {ExitCode::NEGATIVE_ANSWER, "no connection matches. 'v9_rtmp_ctl list' shows the addresses."});
}
