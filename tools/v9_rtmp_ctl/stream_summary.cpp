#include "tools/v9_rtmp_ctl/stream_summary.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <tuple>

#include "tools/v9_rtmp_ctl/text.h"

namespace {

void add(std::optional<double>& sum, const std::optional<double>& rate) {
    if (rate) {
        sum = sum.value_or(0) + *rate;
    }
}

bool has_sent_less(const Connection* a, const Connection* b) {
    // Of two that have sent the same, the one with the lower id counts as more.
    return std::tuple(a->bytes_received.value_or(0), b->id) <
           std::tuple(b->bytes_received.value_or(0), a->id);
}

const Connection* choose_publisher(const std::vector<const Connection*>& candidates,
                                   const std::vector<StreamSummary>& previous) {
    if (candidates.empty()) {
        return nullptr;
    }
    for (const StreamSummary& summary : previous) {
        for (const Connection* candidate : candidates) {
            if (summary.stream == candidate->stream && summary.publisher_id == candidate->id &&
                summary.publisher_address == candidate->address) {
                return candidate;
            }
        }
    }
    return *std::max_element(candidates.begin(), candidates.end(), has_sent_less);
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
        add(summary.out_rate, player->sent_rate);
    }
    return summary;
}

double busyness(const StreamSummary& summary) {
    return summary.in_rate.value_or(0) + summary.out_rate.value_or(0);
}

std::string whole_rate(const std::optional<double>& rate) {
    return rate ? std::to_string(std::llround(*rate)) : std::string();
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

std::string plain_line(const StreamSummary& summary) {
    return escape_untrusted(summary.stream) + '\t' +
           (summary.publisher_id ? std::to_string(*summary.publisher_id) : std::string()) + '\t' +
           std::to_string(summary.players) + '\t' + size_text(summary.size) + '\t' +
           whole_rate(summary.in_rate) + '\t' + whole_rate(summary.out_rate) + '\t' + id_list(summary.rivals);
}
