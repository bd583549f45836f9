// What a load is made of; the command line of relay_load.
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
    unsigned players = 120;  // of each stream
    unsigned stuck = 0;      // players of the first stream that read nothing
    double seconds = 20;
    double warm_up_seconds = 1;
    double ramp_seconds = 0;
    StreamShape shape;
    std::uint32_t player_chunk_bytes = 128;
    std::uint32_t publisher_chunk_bytes = 4096;
    unsigned late_ms = 250;
    // How long what was sent last may take to arrive.
    double arrival_wait_seconds = 10;

    // A server that runs already; empty for one of our own in private namespaces.
    std::string server_host;
    std::uint16_t server_port = 1935;
    pid_t server_pid = 0;  // of that server, when it runs on this machine; 0 when it is not known

    std::string json_path;  // "-" for standard output; empty for none

    unsigned all_players() const { return publishers * players; }
};

// Reads the command line; ends the process after --help or a mistake in it.
LoadOptions read_command_line(int argc, char** argv);
