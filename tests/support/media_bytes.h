// Audio and video payloads: AAC and H.264 in tags of the FLV format, as encoders send them. The contents are
// not decodable and differ for each seed.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tests/support/wire_bytes.h"

inline Bytes aac_header() {
    return from_hex("AF 00 12 10");
}

inline Bytes aac_frame(std::uint32_t seed, std::size_t size = 100) {
    return from_hex("AF 01") + pattern_bytes(size - 2, seed);
}

inline Bytes avc_header() {
    return from_hex("17 00 00 00 00 01 64 00 1F FF E1 00 04 67 64 00 1F");
}

inline Bytes avc_key_frame(std::uint32_t seed, std::size_t size = 500) {
    return from_hex("17 01 00 00 00") + pattern_bytes(size - 5, seed);
}

inline Bytes avc_inter_frame(std::uint32_t seed, std::size_t size = 200) {
    return from_hex("27 01 00 00 00") + pattern_bytes(size - 5, seed);
}
