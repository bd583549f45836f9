// One session of everything that the server does, as short as that can be: two streams with a publisher and a
// player each, a player that comes late to the first, metadata, media, a listing and a drop through the
// control socket.
//
// Whatever happens to the server meanwhile, the session is played as far as it goes, and what became of each
// client is written down. A client is gone from the moment when the server has closed its connection. What
// takes longer than it may throws TestFailure.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/server_process.h"

// The clients, in the order in which they connect, which is also the order of their connections.
constexpr std::size_t FIRST_PUBLISHER = 0;
constexpr std::size_t FIRST_PLAYER = 1;
constexpr std::size_t SECOND_PUBLISHER = 2;
constexpr std::size_t SECOND_PLAYER = 3;
constexpr std::size_t LATE_PLAYER = 4;
constexpr std::size_t SESSION_CLIENTS = 5;

// The server's descriptors when it has no client: the standard three, the listener, the control socket.
constexpr std::size_t FDS_AT_REST = 5;

// In short words: "metadata", "audio header", "answer" ...
using Transcript = std::vector<std::string>;

struct ClientStory {
    // Acknowledgements stand apart: the reader thread sends them, so their place among the rest is free.
    Transcript received;
    std::vector<std::uint64_t> acknowledged;
    // What they must say: how much the client had sent, handshake included, at the end of each of
    // its messages.
    std::vector<std::uint64_t> to_acknowledge;
    // Closed by the server, though nobody had asked for it.
    bool dropped = false;
};

struct ControlStory {
    // How many clients of the control socket it took until one was answered; 0: none was.
    int peers = 0;
    // The socket had been lost when the descriptors were counted; it may still be later.
    bool lost_at_rest = false;
    std::optional<std::vector<std::string>> listed;  // the connection lines
    std::optional<std::string> dropped;              // the answer to the drop of the first stream
};

struct SessionStory {
    std::array<ClientStory, SESSION_CLIENTS> clients;
    ControlStory control;
    // The server ended by itself before the session was over.
    std::optional<ProcessEnd> end;
    // Descriptors that it held when every client had gone.
    std::size_t fds_after = 0;
};

// What a client receives when nothing fails, but for the acknowledgements.
const Transcript& whole_transcript(std::size_t client);
bool is_media(const std::string& received);
bool is_first_stream(std::size_t client);
bool is_player(std::size_t client);

// Plays the session. At its end all clients have gone and the server has stopped in good order, unless it
// ended by itself.
SessionStory play_session(ServerProcess& server);
