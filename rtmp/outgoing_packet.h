// A message on its way to one client: header fields of its own, and a payload that is its own or shared.
#pragma once

#include <cstddef>
#include <utility>

#include "rtmp/rtmp_packet.h"
#include "rtmp/shared_payload.h"

// What the writer thread sends in one go, at most. Only what waits already is taken; one message always is.
constexpr std::size_t MAX_BATCH_MESSAGES = 32;
constexpr std::size_t MAX_BATCH_BYTES = 262144;

struct OutgoingPacket : RTMP_Packet {
    OutgoingPacket() = default;
    // A reply or a control message: the payload stays in chunk.message.
    OutgoingPacket(RTMP_Packet&& pkt) : RTMP_Packet(std::move(pkt)) {}

    SharedPayload shared;  // relayed media; chunk.message is empty then

    // 0: the writer skips the message.
    [[nodiscard]] std::uint32_t payload_bytes() const {
        return shared.payload_bytes() != 0 ? shared.payload_bytes() : chunk.message.data_length;
    }
};
