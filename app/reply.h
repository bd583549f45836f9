// Encoding of what the server answers: AMF0 values into a message payload. Main thread.
#pragma once

#include <initializer_list>

#include "amf/amf_value.h"
#include "core/connection.h"

// Larger messages are not sent.
constexpr std::size_t MAX_ENCODED_BYTES = 65536;

// Encodes the values one after another into message, a buffer of exactly the encoded size. False, with
// message unspecified, when they do not fit MAX_ENCODED_BYTES, one cannot be encoded, or there is no memory.
[[nodiscard]] bool encode_values(std::initializer_list<const AMF_Value*> values,
                                 RTMP_Packet::chunk_t::message_t& message) ON_MAIN_THREAD;

// Queues a command reply with the header fields of the request. False, with nothing queued, as above.
[[nodiscard]] bool queue_reply(RTMPConnection& conn, const RTMP_Packet& request,
                               std::initializer_list<const AMF_Value*> values)
    REQUIRES(conn.mutex, MAIN_THREAD);

// "onStatus", the request's transaction id, null, and {"level": "status", code, description}.
[[nodiscard]] bool queue_on_status(RTMPConnection& conn, const RTMP_Packet& request,
                                   const AMF_Value& transaction_id, const char* code, const char* description)
    REQUIRES(conn.mutex, MAIN_THREAD);

// Values of one kind, for replies.
[[nodiscard]] AMF_Value string_value(const char* text);
[[nodiscard]] AMF_Value number_value(double number);
[[nodiscard]] AMF_Value null_value();
