// The rates of each stream in recent minutes, for plots. Pure.
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

    // Adds a point to every stream at the end of each step. Forgets streams that the history no longer has,
    // and streams that have no client and have carried nothing since the oldest point.
    void take_in(const ConnectionHistory& history);

    // By stream name, oldest point first.
    [[nodiscard]] const std::map<std::string, std::deque<RatePoint>>& streams() const { return points; }
    // The sum of all streams.
    [[nodiscard]] const std::deque<RatePoint>& total() const { return sum; }

  private:
    std::map<std::string, StreamTotals> before;
    std::uint64_t before_us = 0;
    std::map<std::string, std::deque<RatePoint>> points;
    std::deque<RatePoint> sum;
};
