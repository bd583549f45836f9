#include "tools/v9_rtmp_ctl/rate_history.h"

#include <algorithm>

#include "tools/v9_rtmp_ctl/time_units.h"

namespace {

void append(std::deque<RatePoint>& points, const RatePoint& point) {
    points.push_back(point);
    if (points.size() > RateHistory::MAX_POINTS) {
        points.pop_front();
    }
}

bool is_at_rest(const std::deque<RatePoint>& points) {
    return std::all_of(points.begin(), points.end(), [](const RatePoint& p) { return p.in + p.out == 0; });
}

double rate(std::uint64_t earlier, std::uint64_t later, std::uint64_t elapsed_us) {
    const std::uint64_t bytes = later >= earlier ? later - earlier : later;
    return static_cast<double>(bytes) * US_PER_SECOND / static_cast<double>(elapsed_us);
}

}  // namespace

void RateHistory::take_in(const ConnectionHistory& history) {
    const std::uint64_t now_us = history.now_us();
    if (before_us != 0 && now_us >= before_us && now_us - before_us < STEP_US) {
        return;
    }
    if (before_us != 0 && now_us > before_us) {
        RatePoint all;
        for (const auto& [name, totals] : history.streams()) {
            const auto known = before.find(name);
            const StreamTotals& earlier = known == before.end() ? StreamTotals() : known->second;
            const RatePoint point{rate(earlier.bytes_received, totals.bytes_received, now_us - before_us),
                                  rate(earlier.bytes_sent, totals.bytes_sent, now_us - before_us)};
            all.in += point.in;
            all.out += point.out;
            append(points[name], point);
        }
        append(sum, all);
    }
    std::erase_if(points, [&](const auto& entry) {
        const auto known = history.streams().find(entry.first);
        return known == history.streams().end() ||
               (known->second.last_member_us != now_us && is_at_rest(entry.second));
    });
    before = history.streams();
    before_us = now_us;
}
