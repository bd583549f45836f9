// Blocks of a fixed length over a connection's socket, all or nothing. Reader thread.
#pragma once

#include <cstddef>

#include "core/connection.h"

// Exactly c bytes into d; false when there is no socket or the client ends before.
[[nodiscard]] bool read_whole(RTMPConnection& conn, void* d, std::size_t c) ON_READER_THREAD;

// Exactly c bytes from s; false when there is no socket or it takes no more.
[[nodiscard]] bool write_whole(RTMPConnection& conn, const void* s, std::size_t c) ON_READER_THREAD;
