// Selects the streams that have their own metrics. Pure.
//
// Stream names are untrusted, and the program that collects metrics keeps each name for weeks. So:
//
// 1. At most MAX_SERIES names have their own metrics; all others are counted together as OTHER_STREAMS.
// 2. A name must first have carried MIN_BYTES.
// 3. A name gets its own metrics only while it has a client. If all places are taken, it replaces a name
//    whose last client has been gone for KEEP_US. Otherwise it replaces the name that has carried the
//    fewest bytes, but only if it has itself carried at least twice as many. A name replaced in this second
//    way returns only after it has carried twice the bytes it had carried then. So untrusted clients can
//    add at most MAX_SERIES names per KEEP_US for free; each further one costs twice the bytes of the name
//    it replaces.
// 4. No counter decreases. A name's own counters begin at 0; bytes already counted as OTHER_STREAMS
//    stay there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "tools/v9_rtmp_ctl/connection_history.h"

// The server accepts no stream with this name.
constexpr const char* OTHER_STREAMS = "(other)";

class StreamSeries {
  public:
    static constexpr std::size_t MAX_SERIES = 64;
    static constexpr std::uint64_t MIN_BYTES = 65536;
    static constexpr std::uint64_t KEEP_US = 3600000000;

    // Optional; call before take_in(). Earlier bytes then count for rules 2 and 3, but are not included in
    // any counter.
    void begin(const ConnectionHistory& history) { last = history.streams(); }

    void take_in(const ConnectionHistory& history);

    // By the name's label.
    [[nodiscard]] const std::map<std::string, StreamTotals>& listed() const { return series; }
    [[nodiscard]] const StreamTotals& other() const { return rest; }

  private:
    [[nodiscard]] bool admit(const std::string& label, const StreamTotals& totals, std::uint64_t now_us);
    [[nodiscard]] bool make_room(std::uint64_t bytes, std::uint64_t now_us);

    std::map<std::string, StreamTotals> series;
    std::map<std::string, std::uint64_t> carried;   // by listed name: its bytes since it was first seen
    std::map<std::string, std::uint64_t> gave_way;  // by replaced name: its bytes when it was replaced
    StreamTotals rest;
    std::map<std::string, StreamTotals> last;  // last totals of the history, by name
};

// Returns the label of a stream name in metrics. Printable UTF-8 is kept; every other byte becomes \xNN.
// Names with the same label share their metrics.
[[nodiscard]] std::string stream_label(std::string_view name);
