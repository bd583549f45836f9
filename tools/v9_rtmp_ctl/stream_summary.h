// The connections of each stream name, summarized: its publisher and its number of players. Pure.
//
// The listing does not say which of several publishers of one name is relayed, so the one named here is a
// guess. A publisher with a picture size is likelier: the server does not apply the metadata of one that is
// not relayed. Ties are broken by the bytes sent since the last poll, then by the previous guess, then by the
// bytes sent in total.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/text.h"

struct StreamSummary {
    std::string stream;
    std::optional<unsigned> publisher_id;  // empty: players wait for one
    std::string publisher_address;
    bool publisher_is_guess = false;  // it has rivals
    std::optional<VideoSize> size;    // as the publisher announced it
    unsigned players = 0;
    std::optional<double> in_rate;   // from the publisher
    std::optional<double> out_rate;  // to all players
    std::vector<unsigned> rivals;    // connections waiting to publish the same name

    bool operator==(const StreamSummary&) const = default;
};

// Sorted by name, or the busiest first for SortKey::RATE. previous is the last result, or empty. Connections
// without a stream name are omitted.
[[nodiscard]] std::vector<StreamSummary> summarize_streams(const std::vector<Connection>& connections,
                                                           const std::vector<StreamSummary>& previous,
                                                           SortKey key);

// "3,17"; empty if there are none.
[[nodiscard]] std::string id_list(const std::vector<unsigned>& ids);

// Name, publisher id, players, size, bytes or bits per second in and out, and the rivals' ids separated by
// commas. Fields are separated by TABs; absent values are empty.
[[nodiscard]] std::string plain_line(const StreamSummary& summary, RateUnit unit = RateUnit::BYTES);
