// Whom the watchdog drops, and why. Pure: a function of the history and of the limits.
//
// A player is judged by what others got. It is compared with the other players of its stream; where there is
// none that has been there long enough, with the publisher that is relayed, if its counter has grown as media
// does: in each third of the time, and by 2000 bytes a second. Where it is not known which of several is
// relayed, all of them must have. Where all players of a stream stand
// still, the publisher is the suspect and no player is dropped. A player that keeps up with a publisher is
// not behind others: counters count headers too, and a player chooses its chunk size.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/connection_history.h"
#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/selection.h"

enum class DropRule { LONG_NAME, ORIGIN, UNNAMED, CONTESTED, SILENT, STALLED, BEHIND, AGE };
inline constexpr std::array ALL_DROP_RULES{DropRule::LONG_NAME, DropRule::ORIGIN, DropRule::UNNAMED,
                                           DropRule::CONTESTED, DropRule::SILENT, DropRule::STALLED,
                                           DropRule::BEHIND,    DropRule::AGE};

// "long-name": in the log, in the statistics, and the option's name.
[[nodiscard]] const char* rule_name(DropRule rule);

// A rule without a limit is off.
struct WatchdogLimits {
    std::optional<std::uint64_t> stalled_us = 30000000;    // a player stands still
    std::optional<std::uint64_t> behind_us = 15000000;     // a player is so much of its stream behind
    std::optional<std::uint64_t> unnamed_us = 20000000;    // a client has no stream name
    std::optional<std::uint64_t> silent_us = 30000000;     // a publisher sends nothing
    std::optional<std::uint64_t> contested_us = 15000000;  // the same, while another of the name waits
    std::optional<std::uint64_t> age_us = 16200000000;     // a player plays: 4 h 30 min
    std::optional<std::size_t> long_name_bytes = 200;      // a stream name is longer
    std::vector<AddressRange> publish_from;                // publishers come from elsewhere; empty: off
    std::uint64_t stagger_us =
        4000000;  // from one player of a stream that is dropped for its age to the next
};

// A history that knows enough for these limits.
[[nodiscard]] HistoryTimes history_times(const WatchdogLimits& limits, std::uint64_t settle_us,
                                         std::uint64_t interval_us);

struct Verdict {
    Connection target;
    DropRule rule = DropRule::STALLED;
    std::string reason;  // a sentence without subject, for the log
};

// Monotonic times, by stream, at which the last player was dropped for its age.
using AgeDrops = std::map<std::string, std::uint64_t>;

// Removes the drops that are long enough ago for another one. Looks come once in interval_us, not exactly on
// time, and the pause must not become one look longer.
void forget_age_drops(AgeDrops& age_drops, std::uint64_t now_us, std::uint64_t stagger_us,
                      std::uint64_t interval_us);

// At most one verdict for each client, and one for age for each stream. In the order of the ids.
[[nodiscard]] std::vector<Verdict> judge(const ConnectionHistory& history, const WatchdogLimits& limits,
                                         const AgeDrops& age_drops);
