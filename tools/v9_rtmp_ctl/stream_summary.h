// The connections of each stream name, taken together: who publishes, how many play. Pure.
//
// The listing does not say which of several publishers of one name is relayed, so the one named here is a
// guess. Likelier is one with a picture size: the server does not apply the metadata of a publisher that it
// holds. Next comes the one that has sent the most since the last look, then the one named before, then the
// one that has sent the most altogether.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/text.h"

struct StreamSummary {
    std::string stream;
    std::optional<unsigned> publisher_id;  // nothing: players wait for one
    std::string publisher_address;
    bool publisher_is_guess = false;  // there are rivals
    std::optional<VideoSize> size;    // as the publisher announced it
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

// Name, publisher id, players, size, bytes or bits per second in and out, ids of the rivals separated by
// commas; with TABs between the fields and what is absent left empty.
[[nodiscard]] std::string plain_line(const StreamSummary& summary, RateUnit unit = RateUnit::BYTES);
