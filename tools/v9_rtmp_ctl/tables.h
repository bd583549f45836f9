// The tables that people see: connections and streams. Pure.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/stream_summary.h"
#include "tools/v9_rtmp_ctl/table.h"
#include "tools/v9_rtmp_ctl/text.h"

struct TableStyle {
    std::optional<std::size_t> width;  // that the table is to be laid out for; names may be cut to it
    RateUnit unit = RateUnit::BYTES;
};

// Which columns stay longest beside the rates when room is short.
enum class Keep { ADDRESSES, TOTALS };

// Totals since each connection began.
[[nodiscard]] Table connection_table(const std::vector<const Connection*>& connections,
                                     const TableStyle& style);

// Rates beside picture size and totals.
[[nodiscard]] Table connection_rate_table(const std::vector<const Connection*>& connections,
                                          const TableStyle& style, Keep keep);

// The publisher's address is left out where the width has no room for it. A publisher that is a guess has
// a '?'.
[[nodiscard]] Table stream_table(const std::vector<const StreamSummary*>& streams, const TableStyle& style);

// To all of them.
template <typename Item>
[[nodiscard]] std::vector<const Item*> pointers_to(const std::vector<Item>& items) {
    std::vector<const Item*> pointers;
    pointers.reserve(items.size());
    for (const Item& item : items) {
        pointers.push_back(&item);
    }
    return pointers;
}
