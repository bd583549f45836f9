// Reads the headers of chunks from a connection and resolves them against its chunk streams. Reader thread.
#pragma once

#include "core/connection.h"

// The format and the chunk stream id; false when the client ends before.
[[nodiscard]] bool read_basic_header(RTMPConnection& conn, RTMP_Packet::chunk_t& chunk) ON_READER_THREAD;

// What follows a basic header. first: the chunk begins a message, whose header is read into pkt; otherwise it
// must be a continuation, which has none. False after one line, or in silence when the client ends before.
[[nodiscard]] bool resolve_chunk_header(RTMPConnection& conn, RTMP_Packet& pkt, bool first) ON_READER_THREAD;
