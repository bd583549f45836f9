// The commands releaseStream, FCPublish and FCUnpublish, which encoders send before and after publishing.
#include "amf/amf_value.h"
#include "app/command_args.h"
#include "app/command_table.h"
#include "app/reply.h"
#include "core/connection.h"

bool reply_result_only(RTMPConnection& conn, const RTMP_Packet& request, CommandArgs args) {
    AMF_Value transaction_id;
    AMF_Value ignored;  // Clients send a stream name after it, which is not read.
    if (!args.read_followed_by_more(transaction_id) || !args.read(ignored)) {
        return false;
    }
    const AMF_Value result = string_value("_result");
    const AMF_Value null = null_value();
    return queue_reply(conn, request, {&result, &transaction_id, &null});
}
