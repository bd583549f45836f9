#include "relay/player_timebase.h"

#include "base/clock.h"

namespace {

constexpr std::uint32_t BACKWARD_JUMP_MS = 5000;
constexpr std::uint32_t RESET_GAP_MS = 250;

}  // namespace

void start_timebase(PlayerTimebase& timebase, std::uint64_t& clock_start_us, std::uint32_t source_timestamp,
                    std::uint64_t now_us) {
    timebase.source_timebase = source_timestamp;
    timebase.timebase_set = true;
    if (clock_start_us == 0) {
        clock_start_us = now_us;
    }
    const std::uint64_t elapsed_us = now_us > clock_start_us ? now_us - clock_start_us : 0;
    timebase.timestamp_offset = static_cast<std::uint32_t>(elapsed_us / US_PER_MS);
}

std::uint32_t rebase(const PlayerTimebase& timebase, std::uint32_t source_timestamp) {
    if (timebase.source_timebase > source_timestamp) {
        return timebase.timestamp_offset;
    }
    return source_timestamp - timebase.source_timebase + timebase.timestamp_offset;
}

void note_sent(PlayerTimebase& timebase, std::uint32_t output_timestamp) {
    if (timebase.last_sent_timestamp < output_timestamp ||
        timebase.last_sent_timestamp > output_timestamp + BACKWARD_JUMP_MS) {
        timebase.last_sent_timestamp = output_timestamp;
    }
}

void reset_timebase(PlayerTimebase& timebase) {
    if (timebase.timebase_set) {
        timebase.timestamp_offset = timebase.last_sent_timestamp + timebase.source_timebase + RESET_GAP_MS;
    }
    timebase.timebase_set = false;
    timebase.source_timebase = 0;
}
