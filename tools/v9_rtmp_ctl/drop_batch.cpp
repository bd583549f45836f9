#include "tools/v9_rtmp_ctl/drop_batch.h"

#include <comm_socket_v4.h>

#include <utility>

namespace {

// Together with two listings, as many requests as the server carries out at once.
constexpr std::size_t MAX_BATCH_TARGETS = COMM_SOCKET_V4_MAX_REQUESTS_PER_IDLE - 2;
// Bytes of names in a batch, which can be megabytes each. The server reads more than this from a client in
// one pass, so it carries out the whole batch in that pass.
constexpr std::size_t MAX_BATCH_NAME_BYTES = 65536;

using Batch = std::vector<DropTarget>;

// Whether the request may have reached the server. False if the tool itself refused it.
bool may_have_been_sent(const Failure& failure) {
    return failure.exit_code == ExitCode::NO_REPLY || failure.exit_code == ExitCode::NEGATIVE_ANSWER;
}

// Makes the call for each batch, until the first failure.
template <typename Call>
std::optional<Failure> for_each_batch(const Batch& targets, const Call& call) {
    for (std::size_t idx = 0; idx < targets.size();) {
        const std::size_t count = count_batch(targets, idx);
        const auto begin = targets.begin() + static_cast<std::ptrdiff_t>(idx);
        if (std::optional<Failure> failure = call(Batch(begin, begin + static_cast<std::ptrdiff_t>(count)))) {
            return idx > 0 || may_have_been_sent(*failure) ? with_drop_warning(*failure) : *failure;
        }
        idx += count;
    }
    return std::nullopt;
}

std::vector<Request> drop_requests(const Batch& batch) {
    std::vector<Request> requests;
    requests.reserve(batch.size());
    for (const DropTarget& target : batch) {
        requests.push_back(drop_id_request(target.id, target.guard));
    }
    return requests;
}

}  // namespace

std::size_t count_batch(const std::vector<DropTarget>& targets, std::size_t idx) {
    std::size_t count = 0;
    std::size_t name_bytes = 0;
    while (idx + count < targets.size() && count < MAX_BATCH_TARGETS) {
        name_bytes += targets[idx + count].guard.size();
        if (count > 0 && name_bytes > MAX_BATCH_NAME_BYTES) {
            break;
        }
        ++count;
    }
    return count;
}

std::vector<Request> batch_requests(const std::vector<DropTarget>& batch,
                                    const std::optional<Listing>& before) {
    std::vector<Request> requests = drop_requests(batch);
    if (!before) {
        requests.insert(requests.begin(), list_request(""));
    }
    requests.push_back(list_request(""));
    return requests;
}

std::optional<Failure> judge_batch(const std::vector<DropTarget>& batch, const std::vector<Reply>& replies,
                                   std::optional<Listing>& before, std::vector<DropOutcome>& outcomes) {
    const std::size_t first_drop = before ? 0 : 1;
    if (!before) {
        if (std::optional<Failure> failure = read_listing(replies.front(), before.emplace())) {
            return failure;
        }
    }
    Listing after;
    if (std::optional<Failure> failure = read_listing(replies.back(), after)) {
        return failure;
    }
    for (std::size_t i = 0; i < batch.size(); ++i) {
        const Reply& reply = replies[first_drop + i];
        outcomes.push_back(
            {batch[i].id, batch[i].guard, judge_drop(batch[i], reply, *before, after), reply.message});
    }
    before = std::move(after);
    return std::nullopt;
}

std::optional<Failure> drop_targets(ControlClient& client, const std::vector<DropTarget>& targets,
                                    std::vector<DropOutcome>& outcomes) {
    std::optional<Listing> before;
    return for_each_batch(targets, [&](const Batch& batch) -> std::optional<Failure> {
        std::vector<Reply> replies;
        if (std::optional<Failure> failure = client.call_all(batch_requests(batch, before), replies)) {
            return failure;
        }
        return judge_batch(batch, replies, before, outcomes);
    });
}

std::optional<Failure> drop_cut_names(ControlClient& client, const std::vector<Connection>& targets,
                                      std::vector<DropOutcome>& outcomes) {
    Reply listing;
    if (std::optional<Failure> failure = client.call(list_request(""), listing)) {
        return failure;
    }
    for (const Connection& target : targets) {
        std::optional<Failure> kept = no_such_connection(target.id);
        Reply reply;
        const std::string beginning = std::to_string(target.id) + "\t";
        for (const auto& [name, line] : listing.pairs) {
            if (name != "connection" || !line.starts_with(beginning)) {
                continue;
            }
            const std::optional<Connection> whole = parse_connection_line(line);
            if (!whole || whole->address != target.address ||
                whole->stream.size() != target.whole_name_bytes) {
                continue;
            }
            if (std::optional<Failure> failure =
                    client.call(drop_id_request(target.id, whole->stream), reply)) {
                return may_have_been_sent(*failure) ? with_drop_warning(*failure) : *failure;
            }
            kept = judge_drop_id(target.id, target.stream, reply);
        }
        outcomes.push_back({target.id, target.stream, kept, reply.message});
    }
    return std::nullopt;
}

std::optional<Failure> drop_targets_unseen(ControlClient& client, const std::vector<DropTarget>& targets,
                                           std::vector<DropOutcome>& outcomes) {
    return for_each_batch(targets, [&](const Batch& batch) -> std::optional<Failure> {
        std::vector<Reply> replies;
        if (std::optional<Failure> failure = client.call_all(drop_requests(batch), replies)) {
            return failure;
        }
        for (std::size_t i = 0; i < batch.size(); ++i) {
            outcomes.push_back({batch[i].id, batch[i].guard,
                                judge_drop_id(batch[i].id, batch[i].guard, replies[i]), replies[i].message});
        }
        return std::nullopt;
    });
}
