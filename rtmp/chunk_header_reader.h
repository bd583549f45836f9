// Reads chunk headers from a connection and resolves them against its chunk streams. Reader thread.
#pragma once

#include "core/connection.h"

// Reads the format and the chunk stream id. Returns false if the client closes first.
[[nodiscard]] bool read_basic_header(RTMPConnection& conn, RTMP_Packet::chunk_t& chunk) ON_READER_THREAD;

enum class ChunkPosition {
    FIRST,    // begins a message: a message header follows
    FURTHER,  // must be a continuation, which has no message header
};

// For the first chunk of a message, reads the message header into pkt. For a further chunk, checks the
// format. Refuses every chunk once 64 chunk streams have been used. Returns false after printing one line, or
// silently if the client closes first.
[[nodiscard]] bool resolve_chunk_header(RTMPConnection& conn, RTMP_Packet& pkt,
                                        ChunkPosition position) ON_READER_THREAD;
