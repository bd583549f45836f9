// What may be dropped, the requests for it, and the meaning of the replies. Pure.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/failure.h"

// Accepts 0 to 127 in decimal digits only. The server is more lenient (it reads "5x" as 5), so ids are
// checked here first.
[[nodiscard]] std::optional<unsigned> parse_connection_id(std::string_view text);

// The number in the server's "OK, N connections dropped".
[[nodiscard]] std::optional<unsigned> dropped_count(std::string_view message);

// With a guard, the server drops the connection only if its stream has that name. An empty guard is not sent.
[[nodiscard]] Request drop_id_request(unsigned id, const std::string& guard);

// Judges the server's reply. Empty if it dropped the client that had the id at that moment.
[[nodiscard]] std::optional<Failure> judge_drop_id(unsigned id, const std::string& guard, const Reply& reply);

// A connection to drop by its id.
struct DropTarget {
    unsigned id = 0;
    std::string guard;                   // as in drop_id_request
    std::optional<Connection> expected;  // the intended client, if known
};

// The guard is the name of its stream.
[[nodiscard]] DropTarget target_of(const Connection& connection);

// Whether both are the same client on the same stream. False if the address is unknown.
[[nodiscard]] bool is_same_client(const Connection& a, const Connection& b);

// Empty if the target was certainly dropped. before and after are the listings requested around the drop.
// Which client had the id at the drop is certain only if both agree on its address and name.
[[nodiscard]] std::optional<Failure> judge_drop(const DropTarget& target, const Reply& reply,
                                                const Listing& before, const Listing& after);

// Empty if the listing still has the candidate as it was when the user was asked about it. The id alone is
// not enough, because the server reuses ids.
[[nodiscard]] std::optional<Failure> judge_candidate(const Connection& candidate,
                                                     const std::vector<Connection>& listed);

// Adds that connections may have been dropped. For the failure of a call that contained drops.
[[nodiscard]] Failure with_drop_warning(Failure failure);

[[nodiscard]] Failure bad_connection_id(const std::string& text);
[[nodiscard]] Failure no_such_connection(unsigned id);
[[nodiscard]] Failure not_of_stream(unsigned id, const std::string& stream);

// The human-readable "play of 'cam1' from 203.0.113.7:50000".
[[nodiscard]] std::string describe(const Connection& connection);
