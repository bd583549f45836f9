#include "tools/v9_rtmp_ctl/stream_series.h"

#include <algorithm>
#include <utility>

#include "tools/v9_rtmp_ctl/text.h"

namespace {

std::uint64_t carried_bytes(const StreamTotals& totals) {
    return totals.bytes_received + totals.bytes_sent;
}

// A history that has forgotten a name starts again at 0.
std::uint64_t growth(std::uint64_t before, std::uint64_t now) {
    return now >= before ? now - before : now;
}

void add_growth(StreamTotals& sum, const StreamTotals& before, const StreamTotals& now) {
    sum.bytes_received += growth(before.bytes_received, now.bytes_received);
    sum.bytes_sent += growth(before.bytes_sent, now.bytes_sent);
    sum.player_stall_us += growth(before.player_stall_us, now.player_stall_us);
    sum.publisher_silence_us += growth(before.publisher_silence_us, now.publisher_silence_us);
    sum.last_member_us = std::max(sum.last_member_us, now.last_member_us);
}

}  // namespace

void StreamSeries::take_in(const ConnectionHistory& history) {
    for (const auto& [name, totals] : history.streams()) {
        const std::string label = stream_label(name);
        if (series.contains(label)) {
            carried[label] = std::max(carried[label], carried_bytes(totals));
        }
    }
    for (const auto& [name, totals] : history.streams()) {
        const std::string label = stream_label(name);
        const auto before = last.find(name);
        StreamTotals& sum = admit(label, totals, history.now_us()) ? series[label] : rest;
        add_growth(sum, before == last.end() ? StreamTotals() : before->second, totals);
    }
    std::erase_if(gave_way, [&history](const auto& entry) {
        return std::none_of(history.streams().begin(), history.streams().end(), [&entry](const auto& stream) {
            return stream_label(stream.first) == entry.first;
        });
    });
    last = history.streams();
}

bool StreamSeries::admit(const std::string& label, const StreamTotals& totals, std::uint64_t now_us) {
    if (series.contains(label)) {
        return true;
    }
    const std::uint64_t bytes = carried_bytes(totals);
    const auto earlier = gave_way.find(label);
    if (bytes < MIN_BYTES || label == OTHER_STREAMS || totals.last_member_us != now_us ||
        (earlier != gave_way.end() && bytes < 2 * earlier->second) ||
        (series.size() >= MAX_SERIES && !make_room(bytes, now_us))) {
        return false;
    }
    gave_way.erase(label);
    carried[label] = bytes;
    return true;
}

bool StreamSeries::make_room(std::uint64_t bytes, std::uint64_t now_us) {
    const auto weakness = [this, now_us](const auto& entry) {
        const bool is_gone = now_us - std::min(now_us, entry.second.last_member_us) >= KEEP_US;
        return std::pair(!is_gone, carried.at(entry.first));
    };
    const auto weakest =
        std::min_element(series.begin(), series.end(),
                         [&weakness](const auto& a, const auto& b) { return weakness(a) < weakness(b); });
    const auto [is_there, least] = weakness(*weakest);
    if (is_there && bytes < 2 * least) {
        return false;
    }
    if (is_there) {
        gave_way[weakest->first] = least;
    }
    carried.erase(weakest->first);
    series.erase(weakest);
    return true;
}

std::string stream_label(std::string_view name) {
    std::string label;
    while (!name.empty()) {
        const std::size_t length = printable_utf8_length(name);
        if (length != 0) {
            label += name.substr(0, length);
        } else {
            label += escape_untrusted(name.substr(0, 1));
        }
        name.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return label;
}
