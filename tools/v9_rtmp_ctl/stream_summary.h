// The connections of each stream name, taken together: who publishes, how many play. Pure.
//
// The listing does not say which of several publishers of one name is relayed. Once chosen here, a publisher
// stays as long as it is listed, because another one takes over only by having the first dropped. The first
// choice is the one that has sent the most: it has most likely been there the longest.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/connections.h"

struct StreamSummary {
    std::string stream;
    std::optional<unsigned> publisher_id;  // nothing: players wait for one
    std::string publisher_address;
    std::optional<VideoSize> size;  // as the publisher announced it
    unsigned players = 0;
    std::optional<double> in_rate;   // from the publisher
    std::optional<double> out_rate;  // to all players
    std::vector<unsigned> rivals;    // connections that publish the same name and wait to take over

    bool operator==(const StreamSummary&) const = default;
};

// In the order of their names, or the busiest first for SortKey::RATE. previous is the last result, or empty.
// Connections without a stream name are left out.
[[nodiscard]] std::vector<StreamSummary> summarize_streams(const std::vector<Connection>& connections,
                                                           const std::vector<StreamSummary>& previous,
                                                           SortKey key);

// "3,17"; empty for none.
[[nodiscard]] std::string id_list(const std::vector<unsigned>& ids);

// Name, publisher id, players, size, bytes per second in and out, ids of the rivals separated by commas; with
// TABs between the fields and what is absent left empty.
[[nodiscard]] std::string plain_line(const StreamSummary& summary);
