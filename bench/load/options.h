// The parameters of a load: the command line of relay_load.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "bench/frame_schedule.h"

enum class Mode { RELAY, IDLE, STORM, CAPACITY, FLOOR, SLEEPERS };

struct LoadOptions {
    Mode mode = Mode::RELAY;
    std::string mode_name = "relay";

    unsigned publishers = 1;
    unsigned players = 120;  // per stream
    unsigned stuck = 0;      // players of the first stream that never read
    double seconds = 20;
    double warm_up_seconds = 1;
    double ramp_seconds = 0;
    StreamShape shape;
    std::uint32_t player_chunk_bytes = 128;
    std::uint32_t publisher_chunk_bytes = 4096;
    unsigned late_ms = 250;
    // Time limit for the last frames to arrive.
    double arrival_wait_seconds = 10;

    // A running server; empty: start one in private namespaces.
    std::string server_host;
    std::uint16_t server_port = 1935;
    pid_t server_pid = 0;  // of that server if on this machine; 0: unknown

    std::string json_path;  // "-": standard output; empty: none

    unsigned all_players() const { return publishers * players; }
};

// Reads the command line. Exits after --help or an error.
LoadOptions read_command_line(int argc, char** argv);
