// A player's clock for relayed media: converts the publisher's timestamps to ones that begin near 0.
//
// Pure functions; av_relay and time_reset apply the results. Main thread.
#pragma once

#include <cstdint>

struct PlayerTimebase {
    bool timebase_set = false;           // source_timebase is valid
    std::uint32_t source_timebase = 0;   // publisher timestamp of the first packet since the last reset, ms
    std::uint32_t timestamp_offset = 0;  // added to rebased timestamps, ms
    // highest timestamp sent, in ms; lowered if a timestamp falls by more than 5 s
    std::uint32_t last_sent_timestamp = 0;
};

// Call for the first packet after a reset. Its timestamp becomes the source timebase, and the time since the
// player's first relayed packet becomes the offset. A clock_start_us of 0 means "not started"
// and is set here.
void start_timebase(PlayerTimebase& timebase, std::uint64_t& clock_start_us, std::uint32_t source_timestamp,
                    std::uint64_t now_us);

// Returns the player's timestamp for a packet; 32-bit arithmetic. A packet from before the timebase gets
// the offset alone.
[[nodiscard]] std::uint32_t rebase(const PlayerTimebase& timebase, std::uint32_t source_timestamp);

// Records a timestamp that was sent.
void note_sent(PlayerTimebase& timebase, std::uint32_t output_timestamp);

// Call when a new publisher begins. The next packet starts the timebase again.
void reset_timebase(PlayerTimebase& timebase);
