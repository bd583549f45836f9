#include "tools/v9_rtmp_ctl/watchdog_statistics.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "tools/v9_rtmp_ctl/time_units.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr int FORMAT_VERSION = 1;

std::optional<double> seconds(const std::optional<std::uint64_t>& us) {
    return us ? std::optional(static_cast<double>(*us) / US_PER_SECOND) : std::nullopt;
}

std::optional<double> limit_of(DropRule rule, const WatchdogLimits& limits) {
    switch (rule) {
        case DropRule::LONG_NAME:
            return limits.long_name_bytes ? std::optional(static_cast<double>(*limits.long_name_bytes))
                                          : std::nullopt;
        case DropRule::ORIGIN:
            return limits.publish_from.empty()
                       ? std::nullopt
                       : std::optional(static_cast<double>(limits.publish_from.size()));
        case DropRule::UNNAMED:
            return seconds(limits.unnamed_us);
        case DropRule::CONTESTED:
            return seconds(limits.contested_us);
        case DropRule::SILENT:
            return seconds(limits.silent_us);
        case DropRule::STALLED:
            return seconds(limits.stalled_us);
        case DropRule::BEHIND:
            return seconds(limits.behind_us);
        case DropRule::AGE:
            return seconds(limits.age_us);
    }
    return std::nullopt;
}

}  // namespace

WatchdogStatistics make_statistics(const WatchdogLimits& limits) {
    WatchdogStatistics statistics;
    for (const DropRule rule : ALL_DROP_RULES) {
        statistics.rules[rule].limit = limit_of(rule, limits);
    }
    return statistics;
}

std::string statistics_json(const WatchdogStatistics& statistics) {
    Json rules = Json::object();
    for (const auto& [rule, counts] : statistics.rules) {
        rules[rule_name(rule)] = {{"limit", counts.limit ? Json(*counts.limit) : Json(nullptr)},
                                  {"drops", counts.drops},
                                  {"misses", counts.misses},
                                  {"left", counts.left}};
    }
    return Json({{"version", FORMAT_VERSION},
                 {"updated_unix_seconds", statistics.updated_unix_seconds},
                 {"running", statistics.running},
                 {"looks", statistics.looks},
                 {"failed_looks", statistics.failed_looks},
                 {"rules", std::move(rules)}})
        .dump();
}

std::optional<WatchdogStatistics> parse_statistics(std::string_view json) {
    try {
        const Json document = Json::parse(json);
        if (document.at("version") != FORMAT_VERSION) {
            return std::nullopt;
        }
        WatchdogStatistics statistics;
        document.at("updated_unix_seconds").get_to(statistics.updated_unix_seconds);
        document.at("running").get_to(statistics.running);
        document.at("looks").get_to(statistics.looks);
        document.at("failed_looks").get_to(statistics.failed_looks);
        for (const DropRule rule : ALL_DROP_RULES) {
            const Json& counts = document.at("rules").at(rule_name(rule));
            RuleCounts& read = statistics.rules[rule];
            if (!counts.at("limit").is_null()) {
                read.limit = counts.at("limit").get<double>();
            }
            counts.at("drops").get_to(read.drops);
            counts.at("misses").get_to(read.misses);
            counts.at("left").get_to(read.left);
        }
        return statistics;
    } catch (const Json::exception&) {
        return std::nullopt;
    }
}

void continue_counting(const WatchdogStatistics& earlier, WatchdogStatistics& statistics) {
    statistics.looks += earlier.looks;
    statistics.failed_looks += earlier.failed_looks;
    for (const auto& [rule, counts] : earlier.rules) {
        RuleCounts& sum = statistics.rules[rule];
        sum.drops += counts.drops;
        sum.misses += counts.misses;
        sum.left += counts.left;
    }
}
