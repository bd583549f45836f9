// Reads chunk headers from a connection and resolves them against its chunk streams. Reader thread.
#pragma once

#include "core/connection.h"

// Reads the format and the chunk stream id. Returns false if the client closes first.
[[nodiscard]] bool read_basic_header(RTMPConnection& conn, RTMP_Packet::chunk_t& chunk) ON_READER_THREAD;

// Reads what follows a basic header. If first, the chunk begins a message, and its header is read into pkt.
// Otherwise the chunk must be a continuation, which has no message header. Returns false after printing one
// line, or silently if the client closes first.
[[nodiscard]] bool resolve_chunk_header(RTMPConnection& conn, RTMP_Packet& pkt, bool first) ON_READER_THREAD;
