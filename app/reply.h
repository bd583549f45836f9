// Encodes the server's replies: AMF0 values into a message payload. Main thread.
#pragma once

#include <cstddef>
#include <initializer_list>

#include "amf/amf_value.h"
#include "core/connection.h"

// The largest message that is encoded here. Relayed media may be larger.
constexpr std::size_t MAX_ENCODED_BYTES = 65536;

// Encodes the values one after another into message, which gets a buffer of exactly the encoded size. Returns
// false if they exceed MAX_ENCODED_BYTES, one of them cannot be encoded, or there is no memory; message is
// then unspecified.
[[nodiscard]] bool encode_values(std::initializer_list<const AMF_Value*> values,
                                 RTMP_Packet::chunk_t::message_t& message) ON_MAIN_THREAD;

// Queues a command reply with the header fields of the request. Returns false on the same failures; nothing
// is queued then.
[[nodiscard]] bool queue_reply(RTMPConnection& conn, const RTMP_Packet& request,
                               std::initializer_list<const AMF_Value*> values)
    REQUIRES(conn.mutex, MAIN_THREAD);

// Queues "onStatus", the request's transaction id, null, and {"level": "status", code, description}.
[[nodiscard]] bool queue_on_status(RTMPConnection& conn, const RTMP_Packet& request,
                                   const AMF_Value& transaction_id, const char* code, const char* description)
    REQUIRES(conn.mutex, MAIN_THREAD);

// Make values for replies.
[[nodiscard]] AMF_Value string_value(const char* text);
[[nodiscard]] AMF_Value number_value(double number);
[[nodiscard]] AMF_Value null_value();
