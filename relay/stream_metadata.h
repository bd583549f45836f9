// The parts of a publisher's metadata that are kept: the fields that are used later, and the bytes that are
// sent to players.
//
// The value itself is not kept. Decoded, it takes up to 73 bytes for each byte of its message, in many small
// allocations that would keep their pages in use. Main thread only.
#pragma once

#include "amf/amf_value.h"
#include "relay/stream_format.h"
#include "rtmp/rtmp_packet.h"

struct StreamMetadata {
    AMF_Type type = AMF_Type::Undefined;  // of the value
    StreamFormat format;                  // as given by the value
    // "onMetaData" and the value. Empty if they cannot be sent because of the type, the size or
    // lack of memory.
    RTMP_Packet::chunk_t::message_t message;
};
