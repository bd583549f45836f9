#include "tools/v9_rtmp_ctl/watchdog_rules.h"

#include <algorithm>
#include <utility>

#include "tools/v9_rtmp_ctl/stream_health.h"
#include "tools/v9_rtmp_ctl/time_units.h"

namespace {

// While a client carries media, its counter grows in each of this many equal parts of the window.
constexpr unsigned PARTS = 3;
// A player's counter also grows a little from replies.
constexpr std::uint64_t PLAYER_BYTES_PER_SECOND = 250;
// A publisher's counter also grows from messages that are not relayed.
constexpr std::uint64_t PUBLISHER_BYTES_PER_SECOND = 2000;
// Metadata is sent to some players sooner than to others.
constexpr std::uint64_t SLACK_BYTES = 16384;

std::string seconds_text(std::uint64_t us) {
    return std::to_string(us / US_PER_SECOND) + " s";
}

std::string age_text(std::uint64_t us) {
    const std::uint64_t minutes = us / US_PER_SECOND / 60;
    return minutes < 60 ? seconds_text(us)
                        : std::to_string(minutes / 60) + " h " + std::to_string(minutes % 60) + " min";
}

bool is_player(const ClientRecord& record) {
    return record.connection.mode == "play";
}

bool is_publisher(const ClientRecord& record) {
    return record.connection.mode == "publish";
}

class Judge {
  public:
    Judge(const ConnectionHistory& all, const WatchdogLimits& set, const AgeDrops& earlier)
        : history(all), limits(set), age_drops(earlier) {}

    // Applies the rules in the order of ALL_DROP_RULES; the first match counts.
    [[nodiscard]] std::optional<Verdict> judge(const ClientRecord& record) const {
        for (const DropRule rule : ALL_DROP_RULES) {
            if (std::optional<std::string> reason = find_reason(rule, record)) {
                return Verdict{record.connection, rule, std::move(*reason)};
            }
        }
        return std::nullopt;
    }

  private:
    using Reason = std::optional<std::string>;

    [[nodiscard]] Reason find_reason(DropRule rule, const ClientRecord& record) const {
        switch (rule) {
            case DropRule::LONG_NAME:
                return judge_name(record);
            case DropRule::ORIGIN:
                return judge_origin(record);
            case DropRule::UNNAMED:
                return judge_unnamed(record);
            case DropRule::CONTESTED:
                return judge_contested(record);
            case DropRule::SILENT:
                return judge_silent(record);
            case DropRule::STALLED:
                return judge_stalled(record);
            case DropRule::BEHIND:
                return judge_behind(record);
            case DropRule::AGE:
                return judge_age(record);
        }
        return std::nullopt;
    }

    [[nodiscard]] Reason judge_name(const ClientRecord& record) const {
        const Connection& client = record.connection;
        const std::size_t bytes =
            client.whole_name_bytes != 0 ? client.whole_name_bytes : client.stream.size();
        if (!limits.long_name_bytes || bytes <= *limits.long_name_bytes) {
            return std::nullopt;
        }
        return "its stream name has " + std::to_string(bytes) + " bytes";
    }

    [[nodiscard]] Reason judge_origin(const ClientRecord& record) const {
        const bool is_allowed = limits.publish_from.empty() || !is_publisher(record) ||
                                std::any_of(limits.publish_from.begin(), limits.publish_from.end(),
                                            [&](const AddressRange& range) {
                                                return matches_address(range, record.connection.address);
                                            });
        return is_allowed ? Reason() : "its address is not allowed to publish";
    }

    [[nodiscard]] Reason judge_unnamed(const ClientRecord& record) const {
        const std::uint64_t age_us = history.attended_us() - record.first_attended_us;
        if (!limits.unnamed_us || !record.connection.stream.empty() || age_us < *limits.unnamed_us) {
            return std::nullopt;
        }
        return "it has had no stream name for " + seconds_text(age_us);
    }

    [[nodiscard]] Reason judge_contested(const ClientRecord& record) const {
        if (!limits.contested_us || !is_silent_publisher(record, *limits.contested_us)) {
            return std::nullopt;
        }
        const Clients rivals = others_of_stream(history, record, "publish");
        const bool is_awaited = std::any_of(rivals.begin(), rivals.end(), [this](const ClientRecord* rival) {
            return still_us(history, rival->received) < *limits.contested_us;
        });
        return is_awaited
                   ? Reason("it has sent nothing for " + seconds_text(still_us(history, record.received)) +
                            " while another publisher of the stream waits")
                   : std::nullopt;
    }

    [[nodiscard]] Reason judge_silent(const ClientRecord& record) const {
        if (!limits.silent_us || !is_silent_publisher(record, *limits.silent_us)) {
            return std::nullopt;
        }
        return "it has sent nothing for " + seconds_text(still_us(history, record.received));
    }

    [[nodiscard]] Reason judge_stalled(const ClientRecord& record) const {
        const std::uint64_t still = still_us(history, record.sent);
        if (!limits.stalled_us || !is_player(record) || still < *limits.stalled_us) {
            return std::nullopt;
        }
        Clients players = others_of_stream(history, record, "play");
        std::erase_if(players, [this](const ClientRecord* player) {
            return !recent_movement(history, *player, *limits.stalled_us, PARTS);
        });
        if (std::any_of(players.begin(), players.end(), [this](const ClientRecord* player) {
                return moves(*player, *limits.stalled_us, PLAYER_BYTES_PER_SECOND);
            })) {
            return "it has received nothing for " + seconds_text(still) +
                   " while other players of the stream received data";
        }
        const auto sends_media = [this](const ClientRecord* publisher) {
            return moves(*publisher, *limits.stalled_us, PUBLISHER_BYTES_PER_SECOND);
        };
        if (players.empty() && holds_for_source(record, sends_media)) {
            return "it has received nothing for " + seconds_text(still) + " while the publisher kept sending";
        }
        return std::nullopt;
    }

    [[nodiscard]] Reason judge_behind(const ClientRecord& record) const {
        if (!limits.behind_us || !is_player(record) || record.settled_as == 0) {
            return std::nullopt;
        }
        const std::uint64_t limit = *limits.behind_us;
        if (keeps_up_with_a_publisher(record, limit)) {
            return std::nullopt;
        }
        Clients players = others_of_stream(history, record, "play");
        std::erase_if(players, [](const ClientRecord* player) { return player->settled_as == 0; });
        const std::string by = "it is more than " + seconds_text(limit) + " behind ";
        if (players.empty()) {
            const auto is_ahead = [&](const ClientRecord* publisher) {
                return moves(*publisher, limit, PUBLISHER_BYTES_PER_SECOND) &&
                       is_behind(record, *publisher, limit, PUBLISHER_PERCENT);
            };
            return holds_for_source(record, is_ahead) ? by + "its publisher" : Reason();
        }
        std::erase_if(players, [&](const ClientRecord* p) { return still_us(history, p->sent) >= limit; });
        const auto count_ahead = [&](std::uint64_t lead_us) {
            return std::count_if(players.begin(), players.end(), [&](const ClientRecord* player) {
                return is_behind(record, *player, lead_us, 100);
            });
        };
        // A player that lagged when the judged one settled, and has caught up since, appears to be ahead by
        // that lag. Fewer than half of the players therefore count only if one is ahead by twice the limit.
        const auto half = static_cast<std::ptrdiff_t>((players.size() + 1) / 2);
        const bool is_alone_behind = !players.empty() && count_ahead(limit) >= half;
        return is_alone_behind || count_ahead(2 * limit) > 0 ? by + "other players of the stream" : Reason();
    }

    [[nodiscard]] Reason judge_age(const ClientRecord& record) const {
        if (!limits.age_us || !is_player(record) || record.stream_seen_us == 0) {
            return std::nullopt;
        }
        const std::uint64_t age_us = history.now_us() - record.stream_seen_us;
        if (age_us < *limits.age_us ||
            !is_age_drop_due(age_drops, record.connection.stream, history.now_us(), limits.stagger_us) ||
            !is_oldest_player(record)) {
            return std::nullopt;
        }
        return "it has played for " + age_text(age_us);
    }

    [[nodiscard]] bool is_silent_publisher(const ClientRecord& record, std::uint64_t limit_us) const {
        return is_publisher(record) && still_us(history, record.received) >= limit_us;
    }

    // Whether the client's counter has grown as it does with media.
    [[nodiscard]] bool moves(const ClientRecord& record, std::uint64_t window_us,
                             std::uint64_t bytes_per_second) const {
        const std::optional<Movement> movement = recent_movement(history, record, window_us, PARTS);
        return movement && movement->parts == PARTS &&
               movement->bytes >= bytes_per_second * window_us / US_PER_SECOND;
    }

    // Whether the client's bytes and SLACK_BYTES are less than this percentage of the bytes that the other
    // had carried lead_us before its counter last grew.
    [[nodiscard]] static bool is_behind(const ClientRecord& record, const ClientRecord& other,
                                        std::uint64_t lead_us, std::uint64_t percent) {
        const std::uint64_t last_us = media_counter(other).grew_us;
        if (last_us < lead_us) {
            return false;
        }
        const std::optional<std::uint64_t> gained = gained_beside(record, other);
        const std::optional<std::uint64_t> wanted = gained_beside_until(other, record, last_us - lead_us);
        return gained && wanted && *gained + SLACK_BYTES < *wanted / 100 * percent;
    }

    // Also true if there is no publisher to compare with. Players alone cannot be trusted: one that asks for
    // chunks of one byte is sent twice the bytes, and all others appear to be behind it.
    [[nodiscard]] bool keeps_up_with_a_publisher(const ClientRecord& record, std::uint64_t limit_us) const {
        Clients publishers = sources_of(history, record);
        std::erase_if(publishers, [&](const ClientRecord* publisher) {
            return publisher->settled_as == 0 || !moves(*publisher, limit_us, PUBLISHER_BYTES_PER_SECOND);
        });
        return std::any_of(publishers.begin(), publishers.end(),
                           [&](const ClientRecord* publisher) {
                               return keeps_up(history, record, *publisher, limit_us);
                           }) ||
               publishers.empty();
    }

    [[nodiscard]] bool is_oldest_player(const ClientRecord& record) const {
        const Clients players = others_of_stream(history, record, "play");
        return std::none_of(players.begin(), players.end(), [&record](const ClientRecord* player) {
            return std::pair(player->stream_seen_us, player->connection.id) <
                   std::pair(record.stream_seen_us, record.connection.id);
        });
    }

    // Whether the predicate holds for the relayed publisher, whichever it is.
    template <typename Predicate>
    [[nodiscard]] bool holds_for_source(const ClientRecord& record, const Predicate& predicate) const {
        const Clients publishers = sources_of(history, record);
        return !publishers.empty() && std::all_of(publishers.begin(), publishers.end(), predicate);
    }

    const ConnectionHistory& history;
    const WatchdogLimits& limits;
    const AgeDrops& age_drops;
};

}  // namespace

const char* rule_name(DropRule rule) {
    switch (rule) {
        case DropRule::LONG_NAME:
            return "long-name";
        case DropRule::ORIGIN:
            return "origin";
        case DropRule::UNNAMED:
            return "unnamed";
        case DropRule::CONTESTED:
            return "contested";
        case DropRule::SILENT:
            return "silent";
        case DropRule::STALLED:
            return "stalled";
        case DropRule::BEHIND:
            return "behind";
        case DropRule::AGE:
            return "age";
    }
    return "";
}

HistoryTimes history_times(const WatchdogLimits& limits, std::uint64_t settle_us, std::uint64_t interval_us) {
    HistoryTimes times;
    times.longest_gap_us = 5 * interval_us;
    times.settle_us = settle_us;
    // The comparison looks back from the last time the other's counter grew, which is itself in the past.
    times.window_us =
        std::max({limits.stalled_us.value_or(0), 3 * limits.behind_us.value_or(0), interval_us}) +
        2 * interval_us;
    return times;
}

bool is_age_drop_due(const AgeDrops& age_drops, const std::string& stream, std::uint64_t now_us,
                     std::uint64_t stagger_us) {
    const auto last = age_drops.find(stream);
    return last == age_drops.end() || now_us - last->second >= stagger_us;
}

void note_age_drop(AgeDrops& age_drops, const std::string& stream, std::uint64_t now_us,
                   std::uint64_t stagger_us) {
    forget_age_drops(age_drops, now_us, stagger_us);
    const auto [last, is_first] = age_drops.try_emplace(stream, now_us);
    if (!is_first) {
        last->second += stagger_us;
    }
}

void forget_age_drops(AgeDrops& age_drops, std::uint64_t now_us, std::uint64_t stagger_us) {
    std::erase_if(age_drops, [&](const auto& entry) { return now_us - entry.second >= 2 * stagger_us; });
}

std::vector<Verdict> judge(const ConnectionHistory& history, const WatchdogLimits& limits,
                           const AgeDrops& age_drops) {
    const Judge rules(history, limits, age_drops);
    std::vector<Verdict> verdicts;
    for (const ClientRecord& record : history.clients()) {
        if (std::optional<Verdict> verdict = rules.judge(record)) {
            verdicts.push_back(std::move(*verdict));
        }
    }
    return verdicts;
}
