// Which streams have metrics of their own. Pure.
//
// Strangers choose stream names, and each name with metrics of its own is kept for weeks by the program that
// collects them. So:
//
// 1. At most MAX_SERIES names have their own; all others together are OTHER_STREAMS.
// 2. A name has to have carried MIN_BYTES first.
// 3. Only a name that has a client gets its own. Where all are taken, a name gives way when its last client
//    has been gone for KEEP_US, or to a name that has carried twice as much in all. A name that gave way to a
//    larger one gets its own again only when it has carried twice as much as then. So strangers make at most
//    MAX_SERIES new ones in KEEP_US for free, and each one beyond that costs twice the bytes of the smallest.
// 4. No counter goes back: a name's own begins with 0 when it is given one, and what was counted as
//    OTHER_STREAMS stays there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "tools/v9_rtmp_ctl/connection_history.h"

// No stream that the server accepts has this name.
constexpr const char* OTHER_STREAMS = "(other)";

class StreamSeries {
  public:
    static constexpr std::size_t MAX_SERIES = 64;
    static constexpr std::uint64_t MIN_BYTES = 65536;
    static constexpr std::uint64_t KEEP_US = 3600000000;

    // What the streams have carried so far counts for rule 2 and 3, and in no counter. Optional,
    // before take_in().
    void begin(const ConnectionHistory& history) { last = history.streams(); }

    void take_in(const ConnectionHistory& history);

    // By the name's label.
    [[nodiscard]] const std::map<std::string, StreamTotals>& listed() const { return series; }
    [[nodiscard]] const StreamTotals& other() const { return rest; }

  private:
    [[nodiscard]] bool admit(const std::string& label, const StreamTotals& totals, std::uint64_t now_us);
    [[nodiscard]] bool make_room(std::uint64_t bytes, std::uint64_t now_us);

    std::map<std::string, StreamTotals> series;
    std::map<std::string, std::uint64_t> carried;   // of those listed: bytes in all, also before they were
    std::map<std::string, std::uint64_t> gave_way;  // the same of those that gave way, at that moment
    StreamTotals rest;
    std::map<std::string, StreamTotals> last;  // of the history, by name
};

// What stands for a stream name in metrics: the name itself where it is printable UTF-8; every other byte is
// shown as \xNN. Two names that come out the same share their metrics.
[[nodiscard]] std::string stream_label(std::string_view name);
