#include "tools/v9_rtmp_ctl/drop_rules.h"

#include <algorithm>
#include <charconv>

#include "tools/v9_rtmp_ctl/text.h"

namespace {

std::optional<unsigned> parse_unsigned(std::string_view text) {
    unsigned number = 0;
    const char* const end = text.data() + text.size();
    const auto [parsed_end, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && parsed_end == end ? std::optional(number) : std::nullopt;
}

}  // namespace

std::optional<unsigned> parse_connection_id(std::string_view text) {
    const std::optional<unsigned> id = parse_unsigned(text);
    return id && *id < SLOT_COUNT ? id : std::nullopt;
}

std::optional<unsigned> dropped_count(std::string_view message) {
    constexpr std::string_view BEFORE = "OK, ";
    constexpr std::string_view BEHIND = " connections dropped";
    if (message.size() < BEFORE.size() + BEHIND.size() || !message.starts_with(BEFORE) ||
        !message.ends_with(BEHIND)) {
        return std::nullopt;
    }
    message.remove_prefix(BEFORE.size());
    message.remove_suffix(BEHIND.size());
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
        return Failure{ExitCode::NEGATIVE_ANSWER,
                       "connection " + std::to_string(id) + " is not of stream '" + escape_untrusted(guard) +
                           "' and was kept. 'v9_rtmp_ctl list' shows whose it is."};
    }
    return unreadable_reply("'" + reply.message + "' is no answer to a drop");
}

std::optional<Failure> judge_candidate(const Connection& candidate, const std::vector<Connection>& listed) {
    const auto found = std::find_if(listed.begin(), listed.end(),
                                    [&candidate](const Connection& c) { return c.id == candidate.id; });
    if (found == listed.end()) {
        return no_such_connection(candidate.id);
    }
    if (found->address == candidate.address && found->stream == candidate.stream &&
        found->mode == candidate.mode) {
        return std::nullopt;
    }
    return Failure{ExitCode::NEGATIVE_ANSWER, "Connection " + std::to_string(candidate.id) +
                                                  " has changed and was kept. Look again, then drop it."};
}

Failure bad_connection_id(const std::string& text) {
    return {ExitCode::USAGE, "'" + escape_untrusted(text) +
                                 "' is no connection id. Give a number from 0 to " +
                                 std::to_string(SLOT_COUNT - 1) + ", as 'v9_rtmp_ctl list' shows it."};
}

Failure no_such_connection(unsigned id) {
    return {ExitCode::NEGATIVE_ANSWER,
            "there is no connection " + std::to_string(id) + ". 'v9_rtmp_ctl list' shows those there are."};
}
