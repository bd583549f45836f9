// The measurements of each second, as lines of a CSV file, and the totals at the end, as JSON. soak_report.py
// reads both.
#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "bench/journal.h"
#include "bench/load_player.h"
#include "tests/support/server_process.h"

// The resources of the server at one moment.
struct Holdings {
    std::size_t rss_kib;
    std::size_t threads;
    std::size_t descriptors;
};
Holdings holdings_of(const ServerProcess& server);
nlohmann::json to_json(const Holdings& holdings);

class SampleFile {
  public:
    SampleFile(const std::string& path, const ServerProcess& server, unsigned late_limit_ms);

    // Measures the server, adds a line and updates the sums. Call about once a second.
    void add(const FrameTally& tally, std::size_t players, double oversleep_ms);
    // The last line as readable text.
    std::string progress() const;
    const FrameTally& total() const { return sum; }

  private:
    const ServerProcess& measured;
    const unsigned late_ms;
    std::ofstream file;
    TimePoint begin = SteadyClock::now();
    TimePoint last = begin;
    Milliseconds server_cpu;
    Milliseconds own_cpu;
    FrameTally sum;
    std::string last_progress;
};
