// The plain handshake, version 3. C1, S1, C2 and S2 each have 4 bytes of time, 4 unused bytes and
// 1528 random bytes:
//
//   client                        server
//     C0 (3)            ->
//                       <-  S0: the same byte
//     C1                ->
//                       <-  S1: time 0, then rand()
//                       <-  S2: C1 with bytes 4..7 zero
//     C2                ->      must echo S1, except for bytes 4..7
#include <array>
#include <cstdlib>
#include <cstring>

#include "base/diag.h"
#include "core/connection.h"
#include "rtmp/socket_io.h"

namespace {

constexpr unsigned char RTMP_VERSION = 3;
constexpr std::size_t TIME_BYTES = 4;
constexpr std::size_t RANDOM_OFFSET = 8;
constexpr std::size_t BLOCK_BYTES = 1536;

using HandshakeBlock = std::array<unsigned char, BLOCK_BYTES>;

// The generator is never seeded: clients only echo the bytes, and runs with the same order of events produce
// the same trace.
void fill_random(HandshakeBlock& block) {
    for (std::size_t i = RANDOM_OFFSET; i < BLOCK_BYTES; ++i) {
        block[i] = static_cast<unsigned char>(std::rand());
    }
}

bool echoes(const HandshakeBlock& c2, const HandshakeBlock& s1) {
    return std::memcmp(c2.data(), s1.data(), TIME_BYTES) == 0 &&
           std::memcmp(c2.data() + RANDOM_OFFSET, s1.data() + RANDOM_OFFSET, BLOCK_BYTES - RANDOM_OFFSET) ==
               0;
}

}  // namespace

bool RTMPConnection::handshake() {
    unsigned char version = 0;
    if (!read_whole(*this, &version, 1) || version != RTMP_VERSION) {
        return refuse("C0 fail\n");
    }
    if (!write_whole(*this, &version, 1)) {
        return refuse("S0 fail\n");
    }
    HandshakeBlock from_client;
    if (!read_whole(*this, from_client.data(), BLOCK_BYTES)) {
        return refuse("C1 fail\n");
    }
    HandshakeBlock s1{};
    fill_random(s1);
    if (!write_whole(*this, s1.data(), BLOCK_BYTES)) {
        return refuse("S1 fail\n");
    }
    std::memset(from_client.data() + TIME_BYTES, 0, RANDOM_OFFSET - TIME_BYTES);
    if (!write_whole(*this, from_client.data(), BLOCK_BYTES)) {
        return refuse("S2 fail\n");
    }
    if (!read_whole(*this, from_client.data(), BLOCK_BYTES) || !echoes(from_client, s1)) {
        return refuse("C2 fail\n");
    }
    return true;
}
