// A player's own clock for relayed media: publisher timestamps in, timestamps that begin near 0 out.
//
// The rules are values in, values out; av_relay and time_reset carry them out. Main thread.
#pragma once

#include <cstdint>

struct PlayerTimebase {
    bool timebase_set = false;           // source_timebase is valid
    std::uint32_t source_timebase = 0;   // publisher timestamp of the first packet since the last reset, ms
    std::uint32_t timestamp_offset = 0;  // added to rebased timestamps, ms
    std::uint32_t last_sent_timestamp = 0;  // the highest sent, unless it fell by more than 5 s
};

// The first packet since a reset: its timestamp becomes the source timebase, and the offset the time since
// the player's first relayed packet. clock_start_us is 0 for "not started" and is started here.
void start_timebase(PlayerTimebase& timebase, std::uint64_t& clock_start_us, std::uint32_t source_timestamp,
                    std::uint64_t now_us);

// The player's timestamp of a packet; 32-bit arithmetic. A packet from before the timebase gets the bare
// offset.
[[nodiscard]] std::uint32_t rebase(const PlayerTimebase& timebase, std::uint32_t source_timestamp);

// Remembers what was sent last.
void note_sent(PlayerTimebase& timebase, std::uint32_t output_timestamp);

// A new publisher is about to begin: the next packet starts the timebase again.
void reset_timebase(PlayerTimebase& timebase);
