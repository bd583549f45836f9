// The payload of a message queued for a client, whether owned or shared.
#pragma once

#include <string>

#include "rtmp/outgoing_packet.h"

inline std::string payload_of(const OutgoingPacket& pkt) {
    std::string payload(reinterpret_cast<const char*>(pkt.chunk.message.data), pkt.chunk.message.data_length);
    while (payload.size() < pkt.shared.payload_bytes()) {
        const SharedPayload::Bytes run = pkt.shared.plain_run(static_cast<std::uint32_t>(payload.size()));
        payload.append(reinterpret_cast<const char*>(run.data), run.length);
    }
    return payload;
}
