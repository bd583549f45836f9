// Buffers bytes that one recv returned beyond those requested. Reader thread.
//
// Without it, each chunk takes two or three system calls, and a chunk has only 128 bytes by default.
#pragma once

#include <array>
#include <cstddef>

struct ReadAhead {
    static constexpr std::size_t CAPACITY_BYTES = 8192;

    bool enabled = false;  // set when the handshake is complete
    std::size_t begin = 0;
    std::size_t end = 0;
    // Not initialised: if the client sends little, most of the buffer's pages are never touched.
    std::array<unsigned char, CAPACITY_BYTES> bytes;

    // Moves up to c bytes to d. Returns the number of bytes moved, 0 if the buffer is empty.
    std::size_t take(unsigned char* d, std::size_t c);

    // Fills the buffer with one blocking recv. Requires that it is empty. Returns false if the client has
    // closed or on an error.
    [[nodiscard]] bool fill(int fd);
};
