// What may be dropped, how it is asked for and what the answer means. Pure.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/failure.h"

// 0 to 127 in decimal digits alone. The server is more generous (it takes "5x" for 5), so this is tested
// first.
[[nodiscard]] std::optional<unsigned> parse_connection_id(std::string_view text);

// The number in the server's "OK, N connections dropped".
[[nodiscard]] std::optional<unsigned> dropped_count(std::string_view message);

// With a guard, the server drops the connection only if its stream has that name. An empty guard is not sent.
[[nodiscard]] Request drop_id_request(unsigned id, const std::string& guard);

// Nothing when the connection was dropped.
[[nodiscard]] std::optional<Failure> judge_drop_id(unsigned id, const std::string& guard, const Reply& reply);

// Nothing while the listing has the candidate as it was: whoever was asked about it meant this client, doing this.
// An id alone does not say so, because the server gives the id of one who has left to a later one.
[[nodiscard]] std::optional<Failure> judge_candidate(const Connection& candidate,
                                                     const std::vector<Connection>& listed);

[[nodiscard]] Failure bad_connection_id(const std::string& text);
[[nodiscard]] Failure no_such_connection(unsigned id);
