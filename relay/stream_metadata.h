// What is kept of a publisher's metadata: what is asked of it later on, and the bytes that players are sent.
//
// The value itself is not kept. Decoded it takes up to 73 bytes for a byte of its message, in pieces that would keep
// the pages around them in use. Main thread only.
#pragma once

#include "amf/amf_value.h"
#include "relay/stream_format.h"
#include "rtmp/rtmp_packet.h"

struct StreamMetadata {
    AMF_Type type = AMF_Type::Undefined;  // of the value
    StreamFormat format;                  // what the value tells of it
    // "onMetaData" and the value. Empty: players cannot be sent it, for its type, its size or for lack of memory.
    RTMP_Packet::chunk_t::message_t message;
};
