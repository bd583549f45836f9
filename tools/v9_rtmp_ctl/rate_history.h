// The rates of each stream over the last minutes, for plots. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>

#include "tools/v9_rtmp_ctl/connection_history.h"

struct RatePoint {
    double in = 0;   // bytes per second from publishers
    double out = 0;  // to players
};

class RateHistory {
  public:
    static constexpr std::uint64_t STEP_US = 5000000;
    static constexpr std::size_t MAX_POINTS = 60;

    // Adds a point to every stream once a step is over. Streams that the history does not know any more, and
    // those that have carried nothing since the oldest point, are forgotten.
    void take_in(const ConnectionHistory& history);

    // By stream name, the oldest point first.
    [[nodiscard]] const std::map<std::string, std::deque<RatePoint>>& streams() const { return points; }
    // Of all streams together.
    [[nodiscard]] const std::deque<RatePoint>& total() const { return sum; }

  private:
    std::map<std::string, StreamTotals> before;
    std::uint64_t before_us = 0;
    std::map<std::string, std::deque<RatePoint>> points;
    std::deque<RatePoint> sum;
};
