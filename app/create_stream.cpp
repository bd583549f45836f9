#include <cstdint>

#include "amf/amf_value.h"
#include "app/command_args.h"
#include "app/command_table.h"
#include "app/random_number.h"
#include "app/reply.h"
#include "base/diag.h"
#include "core/connection.h"

namespace {

// Returns a random id from 1 to 2,147,483,647, so that a client that ignores the reply and uses 1
// is detected.
std::uint32_t choose_stream_id() {
    constexpr std::uint32_t POSITIVE = 0x7FFFFFFF;
    const std::uint32_t stream_id = random_product() & POSITIVE;
    return stream_id == 0 ? 1 : stream_id;
}

}  // namespace

bool handle_create_stream(RTMPConnection& conn, const RTMP_Packet& request, CommandArgs args) {
    AMF_Value transaction_id;
    AMF_Value command_object;
    if (!args.read_followed_by_more(transaction_id) || !args.read(command_object)) {
        return false;
    }
    conn.stream_id_unconfirmed = true;
    conn.stream_id = choose_stream_id();
    diag("I choose stream ID %lu\n", static_cast<unsigned long>(conn.stream_id));

    const AMF_Value result = string_value("_result");
    const AMF_Value null = null_value();
    const AMF_Value stream_id = number_value(conn.stream_id);
    return queue_reply(conn, request, {&result, &transaction_id, &null, &stream_id});
}
