// Drops connections by their ids, and finds out which clients that hit.
//
// The server knows only ids and, as a guard, stream names. A slot can get another client of the same name, or
// again one without a name, at any moment. So listing, drops and listing are asked for in one write, which
// the server usually carries out at once, and both listings have to agree.
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
    std::optional<Failure> failure;  // nothing: the target was dropped for certain
    std::string message;             // the server's
};

// As many targets from idx on as are dropped in one write; idx is below their number.
[[nodiscard]] std::size_t count_batch(const std::vector<DropTarget>& targets, std::size_t idx);

// Listing, drops, listing. The first listing is left out when there is one from before.
[[nodiscard]] std::vector<Request> batch_requests(const std::vector<DropTarget>& batch,
                                                  const std::optional<Listing>& before);

// Appends the outcomes of the batch. replies answer batch_requests with the same listing from before, which
// becomes the last one: the next batch needs no other.
[[nodiscard]] std::optional<Failure> judge_batch(const std::vector<DropTarget>& batch,
                                                 const std::vector<Reply>& replies,
                                                 std::optional<Listing>& before,
                                                 std::vector<DropOutcome>& outcomes);

// Drops all targets. After a failure it is not known what was dropped of those without an outcome.
[[nodiscard]] std::optional<Failure> drop_targets(ControlClient& client,
                                                  const std::vector<DropTarget>& targets,
                                                  std::vector<DropOutcome>& outcomes);

// Drops clients whose names were cut. The whole names, which are the guards, come from one more listing; one
// at a time is copied, and none is in an outcome. No listing follows: a name of that length is guard enough.
[[nodiscard]] std::optional<Failure> drop_cut_names(ControlClient& client,
                                                    const std::vector<Connection>& targets,
                                                    std::vector<DropOutcome>& outcomes);

// The same as drop_targets without listings, and so without a word about which client had the id.
[[nodiscard]] std::optional<Failure> drop_targets_unseen(ControlClient& client,
                                                         const std::vector<DropTarget>& targets,
                                                         std::vector<DropOutcome>& outcomes);
