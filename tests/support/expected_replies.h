// The payloads that the server must reply with, byte for byte. transaction_id is the encoded AMF0 value from
// the request.
#pragma once

#include <cstdint>

#include "tests/support/amf_bytes.h"

inline Bytes connect_reply(const Bytes& transaction_id, std::uint32_t client_id) {
    return amf_string("_result") + transaction_id +
           amf_object({{"capabilities", amf_number(31)},
                       {"fmsVer", amf_string("FMS/3,5,5,2004")},
                       {"mode", amf_number(1)}}) +
           amf_object({{"clientId", amf_number(client_id)},
                       {"code", amf_string("NetConnection.Connect.Success")},
                       {"description", amf_string("Connection succeeded")},
                       {"level", amf_string("status")},
                       {"objectEncoding", amf_number(0)},
                       {"serverImplementation", amf_string("Ombrex RTMP server/1.0")},
                       {"version", amf_string("3,5,5,2004")}});
}

inline Bytes create_stream_reply(const Bytes& transaction_id, std::uint32_t stream_id) {
    return amf_string("_result") + transaction_id + amf_null() + amf_number(stream_id);
}

// The reply to releaseStream, FCPublish and FCUnpublish.
inline Bytes plain_result(const Bytes& transaction_id) {
    return amf_string("_result") + transaction_id + amf_null();
}

inline Bytes publish_status(const Bytes& transaction_id) {
    return amf_string("onStatus") + transaction_id + amf_null() +
           amf_object({{"code", amf_string("NetStream.Publish.Start")},
                       {"description", amf_string("publishing started")},
                       {"level", amf_string("status")}});
}

inline Bytes play_status(const Bytes& transaction_id) {
    return amf_string("onStatus") + transaction_id + amf_null() +
           amf_object({{"code", amf_string("NetStream.Play.Start")},
                       {"description", amf_string("play started")},
                       {"level", amf_string("status")}});
}
