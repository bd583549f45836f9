// A session that covers all functions of the server in the shortest form: two streams with a publisher and a
// player each, a player that joins the first late, metadata, media, and a listing and a drop through the
// control socket.
//
// The session is played as far as possible, whatever happens to the server, and the outcome of each client is
// recorded. A client is gone once the server has closed its connection. A step that exceeds its time limit
// throws TestFailure.
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

// Short names of messages: "metadata", "audio header", "answer" ...
using Transcript = std::vector<std::string>;

struct ClientStory {
    // Acknowledgements are kept separately: the reader thread sends them, so their order among the
    // rest varies.
    Transcript received;
    std::vector<std::uint64_t> acknowledged;
    // The values that the acknowledgements must have: the bytes that the client had sent, including the
    // handshake, at the end of each message.
    std::vector<std::uint64_t> to_acknowledge;
    // Closed by the server without a request.
    bool dropped = false;
};

struct ControlStory {
    // How many clients of the control socket were needed until one got a reply; 0: none did.
    int peers = 0;
    std::optional<std::vector<std::string>> listed;  // the connection lines
    std::optional<std::string> dropped;              // the reply to the drop of the first stream
};

struct SessionStory {
    std::array<ClientStory, SESSION_CLIENTS> clients;
    ControlStory control;
    // Set if the server ended by itself before the end of the session.
    std::optional<ProgramEnd> end;
    // The descriptors it still held for clients after every client had gone.
    std::ptrdiff_t fds_left = 0;
};

// Returns what a client receives if nothing fails, without acknowledgements.
const Transcript& whole_transcript(std::size_t client);
bool is_media(const std::string& received);
bool is_first_stream(std::size_t client);
bool is_player(std::size_t client);

// Plays the session. At its end all clients have gone and the server has stopped cleanly, unless it ended
// by itself.
SessionStory play_session(ServerProcess& server);
