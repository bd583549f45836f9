#include "tools/v9_rtmp_ctl/drop_rules.h"

#include <comm_socket_v4.h>

#include <cstddef>

#include "tools/v9_rtmp_ctl/parse_number.h"
#include "tools/v9_rtmp_ctl/text.h"

namespace {

std::optional<unsigned> parse_unsigned(std::string_view text) {
    unsigned number = 0;
    return parse_number(text, number) ? std::optional(number) : std::nullopt;
}

std::string describe(const Connection* connection) {
    return connection == nullptr ? "free" : describe(*connection);
}

}  // namespace

std::optional<unsigned> parse_connection_id(std::string_view text) {
    const std::optional<unsigned> id = parse_unsigned(text);
    return id && *id < SLOT_COUNT ? id : std::nullopt;
}

std::optional<unsigned> dropped_count(std::string_view message) {
    constexpr std::string_view BEFORE = "OK, ";
    constexpr std::string_view AFTER = " connections dropped";
    if (message.size() < BEFORE.size() + AFTER.size() || !message.starts_with(BEFORE) ||
        !message.ends_with(AFTER)) {
        return std::nullopt;
    }
    message.remove_prefix(BEFORE.size());
    message.remove_suffix(AFTER.size());
    return parse_unsigned(message);
}

Request drop_id_request(unsigned id, const std::string& guard) {
    Request request{"drop connection by id", {std::to_string(id)}};
    if (!guard.empty()) {
        request.arguments.push_back(guard);
    }
    return request;
}

std::optional<Failure> judge_drop_id(unsigned id, const std::string& guard, const Reply& reply) {
    if (reply.status != COMM_SOCKET_V4_STATUS_SUCCESS) {
        return refused_by_server(reply.message);
    }
    if (reply.message == "OK") {
        return std::nullopt;
    }
    if (reply.message == "OK, no such connection") {
        return no_such_connection(id);
    }
    if (reply.message == "Stream name does not match") {
        return not_of_stream(id, guard);
    }
    return unreadable_reply("'" + reply.message + "' is an unexpected reply to a drop");
}

DropTarget target_of(const Connection& connection) {
    return {connection.id, connection.stream, connection};
}

bool is_same_client(const Connection& a, const Connection& b) {
    return a.id == b.id && a.address == b.address && !a.address.empty() && a.stream == b.stream;
}

std::optional<Failure> judge_drop(const DropTarget& target, const Reply& reply, const Listing& before,
                                  const Listing& after) {
    if (std::optional<Failure> failure = judge_drop_id(target.id, target.guard, reply)) {
        return failure;
    }
    const Connection* const earlier = find_connection(before.connections, target.id);
    const Connection* const later = find_connection(after.connections, target.id);
    const std::string id = std::to_string(target.id);
    const std::string advice = " See 'v9_rtmp_ctl list'.";
    if (earlier == nullptr || later == nullptr || !is_same_client(*earlier, *later)) {
        return Failure{ExitCode::ANOTHER_CLIENT,
                       "a client was dropped, but it is not certain which one. Id " + id +
                           " before the drop: " + describe(earlier) + "; after it: " + describe(later) + "." +
                           advice};
    }
    if (target.expected && !is_same_client(*target.expected, *earlier)) {
        const bool has_only_moved_on =
            target.expected->address == earlier->address && !earlier->address.empty();
        return Failure{
            ExitCode::ANOTHER_CLIENT,
            std::string(has_only_moved_on ? "the client was dropped, but had changed its stream before that"
                                          : "another client was dropped") +
                ". Id " + id + " when it was looked up: " + describe(*target.expected) +
                "; when it was dropped: " + describe(*earlier) + "." + advice};
    }
    return std::nullopt;
}

std::optional<Failure> judge_candidate(const Connection& candidate, const std::vector<Connection>& listed) {
    const Connection* const found = find_connection(listed, candidate.id);
    if (found == nullptr) {
        return no_such_connection(candidate.id);
    }
    if (found->address == candidate.address && found->stream == candidate.stream &&
        found->mode == candidate.mode) {
        return std::nullopt;
    }
    return Failure{ExitCode::NEGATIVE_ANSWER, "connection " + std::to_string(candidate.id) +
                                                  " has changed and was kept. Look again, then drop it."};
}

Failure with_drop_warning(Failure failure) {
    failure.message += " Connections may have been dropped: see 'v9_rtmp_ctl list'.";
    return failure;
}

Failure bad_connection_id(const std::string& text) {
    return {ExitCode::USAGE, "'" + escape_untrusted(text) +
                                 "' is not a connection id. Give a number from 0 to " +
                                 std::to_string(SLOT_COUNT - 1) + ", as 'v9_rtmp_ctl list' shows it."};
}

Failure not_of_stream(unsigned id, const std::string& stream) {
    return {ExitCode::NEGATIVE_ANSWER, "connection " + std::to_string(id) + " does not belong to stream '" +
                                           escape_untrusted(stream) +
                                           "' and was kept. 'v9_rtmp_ctl list' shows its stream."};
}

Failure no_such_connection(unsigned id) {
    return {ExitCode::NEGATIVE_ANSWER,
            "there is no connection " + std::to_string(id) + ". 'v9_rtmp_ctl list' shows all connections."};
}

std::string describe(const Connection& connection) {
    const std::string mode = connection.mode.empty() ? "" : escape_untrusted(connection.mode) + " of ";
    return (connection.stream.empty() ? "without a stream," : mode + quote_untrusted(connection.stream)) +
           " from " +
           (connection.address.empty() ? "an unknown address" : escape_untrusted(connection.address));
}
