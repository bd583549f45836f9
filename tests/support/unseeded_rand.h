// The numbers that the C library's rand() returns in a process that never seeds it, without use of this
// process's generator. The server draws them for its handshake, client ids and stream ids.
#pragma once

#include <array>
#include <cstdint>
#include <cstdlib>

class UnseededRand {
  public:
    UnseededRand() { initstate_r(1, state.data(), state.size(), &data); }
    UnseededRand(const UnseededRand&) = delete;
    UnseededRand& operator=(const UnseededRand&) = delete;

    std::uint32_t next() {
        std::int32_t result = 0;
        random_r(&data, &result);
        return static_cast<std::uint32_t>(result);
    }

    // Returns the draws of one handshake: the 1528 random bytes of S1.
    std::array<unsigned char, 1528> handshake_bytes() {
        std::array<unsigned char, 1528> bytes{};
        for (unsigned char& byte : bytes) {
            byte = static_cast<unsigned char>(next());
        }
        return bytes;
    }

    // Returns the product of two draws, which is how client ids and stream ids are made.
    std::uint32_t product() {
        const std::uint32_t first = next();
        return first * next();
    }

    std::uint32_t stream_id() {
        const std::uint32_t id = product() & 0x7FFFFFFFU;
        return id == 0 ? 1 : id;
    }

  private:
    std::array<char, 128> state{};
    random_data data{};
};
