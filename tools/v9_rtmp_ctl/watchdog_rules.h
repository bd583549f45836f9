// Decides which clients the watchdog drops, and why. Pure: a function of the history and the limits.
//
// A player is judged by what others received. It is compared with the other players of its stream. If none of
// them has been there long enough, it is compared with the relayed publisher, provided that the publisher's
// counter has grown as it does with media: in each third of the time, and by 2000 bytes a second. If several
// publishers may be the relayed one, the counters of all of them must have grown in this way. If all the
// players that it is compared with are stalled too, the publisher is suspected and the player is not dropped.
// A player that keeps up with a publisher is never judged to be behind other players: counters include chunk
// headers, and a player with smaller chunks only appears to be ahead.
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

// For example "long-name". Used in the log, in the statistics, and as the option's name, except that the
// option of "origin" is --publish-from.
[[nodiscard]] const char* rule_name(DropRule rule);

// A rule without a limit is off.
struct WatchdogLimits {
    std::optional<std::uint64_t> stalled_us = 30000000;    // a player receives nothing
    std::optional<std::uint64_t> behind_us = 15000000;     // a player is this far behind its stream
    std::optional<std::uint64_t> unnamed_us = 20000000;    // a client has no stream name
    std::optional<std::uint64_t> silent_us = 30000000;     // a publisher sends nothing
    std::optional<std::uint64_t> contested_us = 15000000;  // the same, while another one waits
    std::optional<std::uint64_t> age_us = 16200000000;     // a player has played for 4 h 30 min
    std::optional<std::size_t> long_name_bytes = 200;      // a stream name is longer than this
    std::vector<AddressRange> publish_from;                // a publisher is outside all of these; empty: off
    std::uint64_t stagger_us = 4000000;  // between players of a stream dropped for their age
};

// Returns how much history these limits need.
[[nodiscard]] HistoryTimes history_times(const WatchdogLimits& limits, std::uint64_t settle_us,
                                         std::uint64_t interval_us);

struct Verdict {
    Connection target;
    DropRule rule = DropRule::STALLED;
    std::string reason;  // a clause about the client, for the log
};

// By stream: the monotonic time when the last drop of a player for its age was due. The next one is due
// stagger_us later. Polls come some time after a drop is due, and these delays must not add up over
// many drops.
using AgeDrops = std::map<std::string, std::uint64_t>;
[[nodiscard]] bool is_age_drop_due(const AgeDrops& age_drops, const std::string& stream, std::uint64_t now_us,
                                   std::uint64_t stagger_us);
void note_age_drop(AgeDrops& age_drops, const std::string& stream, std::uint64_t now_us,
                   std::uint64_t stagger_us);
// Removes the drops that happened too long ago to matter.
void forget_age_drops(AgeDrops& age_drops, std::uint64_t now_us, std::uint64_t stagger_us);

// Returns at most one verdict per client, in the order of ids. At most one verdict per stream is for age,
// except that each player of a stream whose name was cut is judged alone.
[[nodiscard]] std::vector<Verdict> judge(const ConnectionHistory& history, const WatchdogLimits& limits,
                                         const AgeDrops& age_drops);
