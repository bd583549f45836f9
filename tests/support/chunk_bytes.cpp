#include "tests/support/chunk_bytes.h"

#include <algorithm>

#include "tests/support/test_failure.h"

namespace {

constexpr std::uint32_t FIRST_LONG_ID = 64;
constexpr std::uint32_t FIRST_THREE_BYTE_ID = 320;

int shortest_form(std::uint32_t csid) {
    if (csid < FIRST_LONG_ID) {
        return 1;
    }
    return csid < FIRST_THREE_BYTE_ID ? 2 : 3;
}

}  // namespace

Bytes basic_header(int fmt, std::uint32_t csid, int size) {
    const int form = size == 0 ? shortest_form(csid) : size;
    const int top = fmt << 6;
    if (form == 1) {
        return bytes_of({top | static_cast<int>(csid & 63)});
    }
    const std::uint32_t rest = csid - FIRST_LONG_ID;
    const int low = static_cast<int>(rest & 0xFF);
    if (form == 2) {
        return bytes_of({top, low});
    }
    if (form == 3) {
        return bytes_of({top | 1, low, static_cast<int>(rest >> 8 & 0xFF)});
    }
    throw TestFailure("a basic header has 1, 2 or 3 bytes");
}

Bytes message_header(const OutMessage& message) {
    const std::uint32_t length = message.length.value_or(static_cast<std::uint32_t>(message.payload.size()));
    const Bytes length_and_type = be24(length) + bytes_of({message.type});
    switch (message.fmt) {
        case 0: {
            const bool extended = message.timestamp >= EXTENDED_TIMESTAMP;
            return be24(extended ? EXTENDED_TIMESTAMP : message.timestamp) + length_and_type +
                   le32(message.stream_id) + (extended ? be32(message.timestamp) : Bytes());
        }
        case 1:
            return be24(message.timestamp) + length_and_type;
        case 2:
            return be24(message.timestamp);
        case 3:
            return {};
        default:
            throw TestFailure("a chunk format is 0 to 3");
    }
}

Bytes chunked(const OutMessage& message, std::uint32_t chunk_size) {
    Bytes result = basic_header(message.fmt, message.csid) + message_header(message);
    result.reserve(result.size() + message.payload.size() + message.payload.size() / chunk_size * 3);
    const Bytes continuation = basic_header(3, message.csid);
    for (std::size_t offset = 0; offset < message.payload.size(); offset += chunk_size) {
        if (offset > 0) {
            result += continuation;
        }
        result.append(message.payload, offset, chunk_size);
    }
    return result;
}
