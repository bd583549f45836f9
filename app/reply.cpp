#include "app/reply.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <deque>
#include <utility>

#include "amf/amf_write.h"

namespace {

// One static buffer for all messages: the allocator would map fresh pages for a buffer of this
// size each time.
std::array<unsigned char, MAX_ENCODED_BYTES> encoding_buffer GUARDED_BY(MAIN_THREAD);

}  // namespace

bool encode_values(std::initializer_list<const AMF_Value*> values, RTMP_Packet::chunk_t::message_t& message) {
    unsigned char* d = encoding_buffer.data();
    unsigned char* const df = d + encoding_buffer.size();
    for (const AMF_Value* const value : values) {
        if (!AMF_WriteValue(d, df, *value)) {
            return false;
        }
    }
    // A reply that waits for a slow client occupies its own length, not the size of this buffer.
    if (!message.allocate(static_cast<std::uint32_t>(d - encoding_buffer.data()))) {
        return false;
    }
    std::memcpy(message.data, encoding_buffer.data(), message.data_length);
    return true;
}

bool queue_reply(RTMPConnection& conn, const RTMP_Packet& request,
                 std::initializer_list<const AMF_Value*> values) {
    RTMP_Packet reply;
    reply.copy_header_from(request);
    if (!encode_values(values, reply.chunk.message)) {
        return false;
    }
    conn.connection_out.push_back(std::move(reply));
    return true;
}

bool queue_on_status(RTMPConnection& conn, const RTMP_Packet& request, const AMF_Value& transaction_id,
                     const char* code, const char* description) {
    AMF_Value information;
    information.type = AMF_Type::Object;
    information.member("level").set_string("status");
    information.member("code").set_string(code);
    information.member("description").set_string(description);
    const AMF_Value name = string_value("onStatus");
    const AMF_Value null = null_value();
    return queue_reply(conn, request, {&name, &transaction_id, &null, &information});
}

AMF_Value string_value(const char* text) {
    AMF_Value value;
    value.set_string(text);
    return value;
}

AMF_Value number_value(double number) {
    AMF_Value value;
    value.set_number(number);
    return value;
}

AMF_Value null_value() {
    AMF_Value value;
    value.set_null();
    return value;
}
