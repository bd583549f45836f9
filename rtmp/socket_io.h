// Reads and writes blocks of a fixed length on a connection's socket, all or nothing. Reader thread.
#pragma once

#include <cstddef>

#include "core/connection.h"

// Reads exactly c bytes into d. Returns false if there is no socket or if the client closes first.
[[nodiscard]] bool read_whole(RTMPConnection& conn, void* d, std::size_t c) ON_READER_THREAD;

// Writes exactly c bytes from s. Returns false if there is no socket or it has failed.
[[nodiscard]] bool write_whole(RTMPConnection& conn, const void* s, std::size_t c) ON_READER_THREAD;
