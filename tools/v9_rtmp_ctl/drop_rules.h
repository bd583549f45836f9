// What may be dropped, how it is asked for and what the answer means. Pure.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/failure.h"

// 0 to 127 in decimal digits alone. The server is more generous (it takes "5x" for 5), so this is
// tested first.
[[nodiscard]] std::optional<unsigned> parse_connection_id(std::string_view text);

// The number in the server's "OK, N connections dropped".
[[nodiscard]] std::optional<unsigned> dropped_count(std::string_view message);

// With a guard, the server drops the connection only if its stream has that name. An empty guard is not sent.
[[nodiscard]] Request drop_id_request(unsigned id, const std::string& guard);

// What the server answered; nothing when it dropped the client that had the id then.
[[nodiscard]] std::optional<Failure> judge_drop_id(unsigned id, const std::string& guard, const Reply& reply);

// A connection that is to be dropped by its id.
struct DropTarget {
    unsigned id = 0;
    std::string guard;                   // as in drop_id_request
    std::optional<Connection> expected;  // the client that is meant, as far as it is known
};

// By the name that it has.
[[nodiscard]] DropTarget target_of(const Connection& connection);

// Whether both are the same client on the same stream. False when the address is not known.
[[nodiscard]] bool is_same_client(const Connection& a, const Connection& b);

// Nothing when the target was dropped for certain. before and after are the listings that were asked for
// around the drop. The client that had the id at the drop is certain only where both agree on its address
// and name.
[[nodiscard]] std::optional<Failure> judge_drop(const DropTarget& target, const Reply& reply,
                                                const Listing& before, const Listing& after);

// Nothing while the listing has the candidate as it was when the user was asked about it. The id alone does
// not say so: the server gives the id of a client that has left to a later one.
[[nodiscard]] std::optional<Failure> judge_candidate(const Connection& candidate,
                                                     const std::vector<Connection>& listed);

[[nodiscard]] Failure bad_connection_id(const std::string& text);
[[nodiscard]] Failure no_such_connection(unsigned id);
[[nodiscard]] Failure not_of_stream(unsigned id, const std::string& stream);

// "play of 'cam1' from 203.0.113.7:50000", for people.
[[nodiscard]] std::string describe(const Connection& connection);
