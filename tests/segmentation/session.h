// Whole sessions as their clients sent them: an ffmpeg publisher's, an ffmpeg player's, and one put together
// by hand.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

struct Session {
    std::string name;
    std::string bytes;   // from C0 on
    std::string stream;  // what it publishes or plays
    bool plays = false;
    // For a player: the number of bytes it had sent, up to the end of a message, when its media arrived.
    std::size_t media_at = 0;
};

constexpr std::size_t HANDSHAKE_BLOCK_BYTES = 1536;
// Where a client's echo of the server's random bytes, C2, begins.
constexpr std::size_t C2_OFFSET = 1 + HANDSHAKE_BLOCK_BYTES;

// "publisher", "player" or "hand_made".
Session session_named(const std::string& name);

// Publishes with chunks in all their forms: each header format, each form of the basic header, extended
// timestamps, lengths of zero, changing chunk sizes down to 1, and every control message. Ends in chunks
// of 100.
Session hand_made_session();

// Makes the session answer this S1, whatever server it was recorded with.
void answer_handshake(Session& session, std::string_view s1);
