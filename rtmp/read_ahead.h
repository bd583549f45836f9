// What one recv has brought beyond the bytes that were asked for. Reader thread.
//
// Without it each chunk takes three system calls, and clients send chunks of 128 bytes.
#pragma once

#include <array>
#include <cstddef>

struct ReadAhead {
    static constexpr std::size_t CAPACITY_BYTES = 8192;

    bool enabled = false;  // from the end of the handshake on
    std::size_t begin = 0;
    std::size_t end = 0;
    // Not initialised: a client that sends little touches little of it.
    std::array<unsigned char, CAPACITY_BYTES> bytes;

    // Moves up to c bytes to d. Returns their number, 0 when there are none.
    std::size_t take(unsigned char* d, std::size_t c);

    // Waits in one recv for more; requires that there are none. False when the client has closed, or on an error.
    [[nodiscard]] bool fill(int fd);
};
