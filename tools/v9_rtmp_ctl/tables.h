// The tables of connections and streams in text output. Pure.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/stream_summary.h"
#include "tools/v9_rtmp_ctl/table.h"
#include "tools/v9_rtmp_ctl/text.h"

struct TableStyle {
    std::optional<std::size_t> width;  // available width; names may be cut to it
    RateUnit unit = RateUnit::BYTES;
};

// The columns, besides the rates, that are kept longest when space is tight.
enum class Keep { ADDRESSES, TOTALS };

// Shows totals since each connection began.
[[nodiscard]] Table connection_table(const std::vector<const Connection*>& connections,
                                     const TableStyle& style);

// Shows rates, picture size and totals.
[[nodiscard]] Table connection_rate_table(const std::vector<const Connection*>& connections,
                                          const TableStyle& style, Keep keep);

// The publisher's address is omitted if there is no room for it. A guessed publisher is marked with '?'.
[[nodiscard]] Table stream_table(const std::vector<const StreamSummary*>& streams, const TableStyle& style);

// Returns pointers to all items.
template <typename Item>
[[nodiscard]] std::vector<const Item*> pointers_to(const std::vector<Item>& items) {
    std::vector<const Item*> pointers;
    pointers.reserve(items.size());
    for (const Item& item : items) {
        pointers.push_back(&item);
    }
    return pointers;
}
