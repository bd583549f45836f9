#include "bench/load/options.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdlib>
#include <map>
#include <system_error>

namespace {

constexpr unsigned TABLE_SLOTS = 128;
// Slots for the visitors of a storm, and for those whose slot is not yet free again.
constexpr unsigned STORM_SLOTS = 16;
constexpr unsigned STORM_PLAYERS = 100;
constexpr const char* DESCRIPTION =
    "Loads the real server, checks every frame and reports what it cost.\n"
    "  relay     publishers and players; exit status 0 only if nothing was lost or damaged\n"
    "  idle      players that wait for a stream\n"
    "  storm     relay, and beside it players that come and go as fast as the server lets them in\n"
    "  capacity  relay at growing rates, until frames are lost, damaged or later than --late\n"
    "  floor     instead of the server a process that only sends the same bytes\n"
    "  sleepers  instead of the server a process of as many threads that only sleep";

const std::map<std::string, Mode> MODES = {{"relay", Mode::RELAY}, {"idle", Mode::IDLE},
                                           {"storm", Mode::STORM}, {"capacity", Mode::CAPACITY},
                                           {"floor", Mode::FLOOR}, {"sleepers", Mode::SLEEPERS}};

void add_clients(CLI::App& app, LoadOptions& load) {
    app.add_option("--mode", load.mode_name, "see above")->capture_default_str()->check(CLI::IsMember(MODES));
    app.add_option("--publishers", load.publishers, "streams")
        ->capture_default_str()
        ->check(CLI::Range(1, 64));
    app.add_option("--players", load.players, "players of each stream")
        ->capture_default_str()
        ->check(CLI::Range(0, 127));
    app.add_option("--stuck", load.stuck, "additional players of the first stream that read nothing")
        ->check(CLI::Range(0, 127));
    app.add_option("--seconds", load.seconds, "seconds to measure")
        ->capture_default_str()
        ->check(CLI::Range(0.1, 36000.0));
    app.add_option("--warm-up", load.warm_up_seconds, "seconds of media before that")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 600.0));
    app.add_option("--ramp", load.ramp_seconds, "seconds over which the players join; 0: without a pause")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 600.0));
    app.add_option("--chunk-size", load.player_chunk_bytes, "chunk size that the players ask for")
        ->capture_default_str()
        ->check(CLI::Range(1, 65536));
    app.add_option("--publisher-chunk-size", load.publisher_chunk_bytes, "chunk size of the publishers")
        ->capture_default_str()
        ->check(CLI::Range(1, 65536));
    app.add_option("--late", load.late_ms, "milliseconds after which a frame is late")
        ->capture_default_str()
        ->check(CLI::Range(1, 9999));
}

struct Rate {
    unsigned kbit_per_second = 4000;
    std::size_t frame_bytes = 0;
};

void add_media(CLI::App& app, StreamShape& shape, Rate& rate) {
    CLI::Option* kbit = app.add_option("--kbit", rate.kbit_per_second, "video of a stream in kbit/s")
                            ->capture_default_str()
                            ->check(CLI::Range(10, 1000000));
    app.add_option("--frame-bytes", rate.frame_bytes, "instead: mean size of a video frame")
        ->check(CLI::Range(26, 1 << 24))
        ->excludes(kbit);
    app.add_option("--fps", shape.frames_per_second, "video frames a second")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000));
    app.add_option("--key-every", shape.frames_per_key_frame, "video frames from one key frame to the next")
        ->capture_default_str()
        ->check(CLI::Range(1, 100000));
    app.add_option("--key-size", shape.key_frame_in_means,
                   "size of a key frame as a multiple of the mean frame size")
        ->capture_default_str()
        ->check(CLI::Range(0.1, 1000.0));
    app.add_option("--audio-kbit", shape.audio_kbit_per_second, "audio of a stream in kbit/s; 0: none")
        ->capture_default_str()
        ->check(CLI::Range(0, 1000));
}

void require(bool holds, const std::string& what) {
    if (!holds) {
        throw CLI::ValidationError(what);
    }
}

// "HOST" or "HOST:PORT".
void split_address(const std::string& address, LoadOptions& load) {
    const std::size_t colon = address.find(':');
    load.server_host = address.substr(0, colon);
    if (colon != std::string::npos) {
        const char* const last = address.data() + address.size();
        const auto [end, error] = std::from_chars(address.data() + colon + 1, last, load.server_port);
        require(error == std::errc() && end == last && load.server_port != 0,
                "--server: the port is a number from 1 to 65535");
    }
}

void check(const LoadOptions& load) {
    const bool stands_in = load.mode == Mode::FLOOR || load.mode == Mode::SLEEPERS;
    const unsigned slots =
        load.publishers * (1 + load.players) + load.stuck + (load.mode == Mode::STORM ? STORM_SLOTS : 0);
    require(load.mode == Mode::SLEEPERS || slots <= TABLE_SLOTS,
            "the server accepts 128 connections: publishers, players, stuck players, and 16 for a storm");
    require(!stands_in || load.server_host.empty(), "--server is not for --mode " + load.mode_name);
    require(load.mode != Mode::FLOOR || (load.publishers == 1 && load.stuck == 0),
            "--mode floor requires one stream and no stuck players");
    require(load.shape.largest_frame_bytes() <= MOST_FRAME_BYTES,
            "the server accepts only messages below 1 MiB: use smaller frames, or more per second");
}

}  // namespace

LoadOptions read_command_line(int argc, char** argv) {
    LoadOptions load;
    Rate rate;
    std::string address;
    CLI::App app(DESCRIPTION);
    add_clients(app, load);
    add_media(app, load.shape, rate);
    app.add_option("--server", address, "HOST[:PORT] (IPv4) of a server that is already running");
    app.add_option("--pid", load.server_pid, "its process id if it runs on this machine, to report its cost")
        ->check(CLI::PositiveNumber);
    app.add_option("--json", load.json_path, "file for the figures; - for standard output");
    try {
        app.parse(argc, argv);
        load.mode = MODES.at(load.mode_name);
        split_address(address, load);
        if (rate.frame_bytes != 0) {
            load.shape.mean_frame_bytes = rate.frame_bytes;
        } else {
            load.shape.set_video_kbit(rate.kbit_per_second);
        }
        if (load.mode == Mode::STORM && app.count("--players") == 0) {
            load.players = STORM_PLAYERS;
        }
        check(load);
    } catch (const CLI::ParseError& error) {
        std::exit(app.exit(error));
    }
    return load;
}
