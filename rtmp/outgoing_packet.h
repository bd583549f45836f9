// A message to be sent to one client. It has its own header fields and a payload of its own or a shared one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "rtmp/rtmp_packet.h"
#include "rtmp/shared_payload.h"

// Limits of a batch that the writer thread sends. The writer never waits to fill a batch. A single message
// may exceed the byte limit.
constexpr std::size_t MAX_BATCH_MESSAGES = 32;
constexpr std::size_t MAX_BATCH_BYTES = 262144;

struct OutgoingPacket : RTMP_Packet {
    OutgoingPacket() = default;
    // For a reply or a control message: the payload stays in chunk.message.
    OutgoingPacket(RTMP_Packet&& pkt) : RTMP_Packet(std::move(pkt)) {}

    SharedPayload shared;  // relayed media; chunk.message is then empty

    // Returns the payload's length. If it is 0, the writer skips the message.
    [[nodiscard]] std::uint32_t payload_bytes() const {
        return shared.payload_bytes() != 0 ? shared.payload_bytes() : chunk.message.data_length;
    }
};
