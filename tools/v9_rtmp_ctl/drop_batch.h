// Drops connections by their ids, and finds out which clients were dropped.
//
// A drop request can identify a connection only by its id and, as a guard, its stream name. The guard does
// not detect that another client of the same stream has taken the slot; without a stream name, there is no
// guard. So one write requests a listing, the drops and another listing. The server usually handles all of
// them in one pass. A drop is certain only if both listings agree.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/drop_rules.h"
#include "tools/v9_rtmp_ctl/failure.h"

struct DropOutcome {
    unsigned id = 0;
    std::string guard;
    std::optional<Failure> failure;  // empty: the target was certainly dropped
    std::string message;             // from the server
};

// Returns how many targets from idx on are dropped in one write. idx is less than the number of targets.
[[nodiscard]] std::size_t count_batch(const std::vector<DropTarget>& targets, std::size_t idx);

// A listing, the drops, a listing. The first listing is omitted if an earlier one is given.
[[nodiscard]] std::vector<Request> batch_requests(const std::vector<DropTarget>& batch,
                                                  const std::optional<Listing>& before);

// Appends the outcomes of the batch. replies holds the replies to the requests that batch_requests returned
// for the same earlier listing. That listing is replaced by the last one, for use by the next batch.
[[nodiscard]] std::optional<Failure> judge_batch(const std::vector<DropTarget>& batch,
                                                 const std::vector<Reply>& replies,
                                                 std::optional<Listing>& before,
                                                 std::vector<DropOutcome>& outcomes);

// Drops all targets. After a failure, targets without an outcome may or may not have been dropped.
[[nodiscard]] std::optional<Failure> drop_targets(ControlClient& client,
                                                  const std::vector<DropTarget>& targets,
                                                  std::vector<DropOutcome>& outcomes);

// Drops clients whose names were cut. The whole names, used as guards, come from one more listing. They
// are copied one at a time and do not appear in outcomes. No listing follows: a name of that length is
// a sufficient guard.
[[nodiscard]] std::optional<Failure> drop_cut_names(ControlClient& client,
                                                    const std::vector<Connection>& targets,
                                                    std::vector<DropOutcome>& outcomes);

// Like drop_targets but without listings, so the client that had the id is not known.
[[nodiscard]] std::optional<Failure> drop_targets_unseen(ControlClient& client,
                                                         const std::vector<DropTarget>& targets,
                                                         std::vector<DropOutcome>& outcomes);
