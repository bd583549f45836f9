#include "tools/v9_rtmp_ctl/stream_summary.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <tuple>

#include "tools/v9_rtmp_ctl/text.h"

namespace {

bool was_chosen(const Connection& candidate, const std::vector<StreamSummary>& previous) {
    return std::any_of(previous.begin(), previous.end(), [&candidate](const StreamSummary& summary) {
        return summary.stream == candidate.stream && summary.publisher_id == candidate.id &&
               summary.publisher_address == candidate.address;
    });
}

const Connection* choose_publisher(const std::vector<const Connection*>& candidates,
                                   const std::vector<StreamSummary>& previous) {
    const auto is_less_likely = [&previous](const Connection* a, const Connection* b) {
        const auto likelihood = [&previous](const Connection& c) {
            // An unknown rate sorts below a rate of 0.
            return std::tuple(c.size.has_value(), c.received_rate.value_or(-1), was_chosen(c, previous),
                              c.bytes_received.value_or(0));
        };
        // Of two equal ones, the lower id is likelier.
        return std::tuple(likelihood(*a), b->id) < std::tuple(likelihood(*b), a->id);
    };
    const auto likeliest = std::max_element(candidates.begin(), candidates.end(), is_less_likely);
    return likeliest == candidates.end() ? nullptr : *likeliest;
}

struct Members {
    std::vector<const Connection*> publishers;
    std::vector<const Connection*> players;
};

StreamSummary summarize(const std::string& stream, const Members& members,
                        const std::vector<StreamSummary>& previous) {
    StreamSummary summary;
    summary.stream = stream;
    const Connection* const publisher = choose_publisher(members.publishers, previous);
    if (publisher != nullptr) {
        summary.publisher_id = publisher->id;
        summary.publisher_address = publisher->address;
        summary.publisher_is_guess = members.publishers.size() > 1;
        summary.size = publisher->size;
        summary.in_rate = publisher->received_rate;
    }
    for (const Connection* candidate : members.publishers) {
        if (candidate != publisher) {
            summary.rivals.push_back(candidate->id);
        }
    }
    summary.players = static_cast<unsigned>(members.players.size());
    for (const Connection* player : members.players) {
        add_rate(summary.out_rate, player->sent_rate);
    }
    return summary;
}

double busyness(const StreamSummary& summary) {
    return summary.in_rate.value_or(0) + summary.out_rate.value_or(0);
}

std::string whole_rate(const std::optional<double>& rate, RateUnit unit) {
    return rate ? std::to_string(std::llround(in_unit(*rate, unit))) : std::string();
}

}  // namespace

std::vector<StreamSummary> summarize_streams(const std::vector<Connection>& connections,
                                             const std::vector<StreamSummary>& previous, SortKey key) {
    std::map<std::string, Members> streams;
    for (const Connection& connection : connections) {
        if (connection.stream.empty()) {
            continue;
        }
        Members& members = streams[connection.stream];
        if (connection.mode == "publish") {
            members.publishers.push_back(&connection);
        } else if (connection.mode == "play") {
            members.players.push_back(&connection);
        }
    }
    std::vector<StreamSummary> summaries;
    summaries.reserve(streams.size());
    for (const auto& [stream, members] : streams) {
        summaries.push_back(summarize(stream, members, previous));
    }
    if (key == SortKey::RATE) {
        std::stable_sort(
            summaries.begin(), summaries.end(),
            [](const StreamSummary& a, const StreamSummary& b) { return busyness(a) > busyness(b); });
    }
    return summaries;
}

std::string id_list(const std::vector<unsigned>& ids) {
    std::string list;
    for (const unsigned id : ids) {
        list += (list.empty() ? "" : ",") + std::to_string(id);
    }
    return list;
}

std::string plain_line(const StreamSummary& summary, RateUnit unit) {
    return escape_untrusted(summary.stream) + '\t' +
           (summary.publisher_id ? std::to_string(*summary.publisher_id) : std::string()) + '\t' +
           std::to_string(summary.players) + '\t' + size_text(summary.size) + '\t' +
           whole_rate(summary.in_rate, unit) + '\t' + whole_rate(summary.out_rate, unit) + '\t' +
           id_list(summary.rivals);
}
