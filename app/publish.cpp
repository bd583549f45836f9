#include <cstdint>
#include <string>

#include "amf/amf_value.h"
#include "app/command_args.h"
#include "app/command_table.h"
#include "app/refusal.h"
#include "app/reply.h"
#include "base/clock.h"
#include "base/diag.h"
#include "core/connection.h"
#include "core/limits.h"
#include "relay/stream_name.h"
#include "relay/stream_registry.h"
#include "relay/time_reset.h"

namespace {

// The time allowed between publish and the first media message. Each media message then sets a
// shorter deadline.
constexpr std::uint64_t FIRST_MEDIA_GRACE_US = 3500000;

}  // namespace

bool handle_publish(RTMPConnection& conn, const RTMP_Packet& request, CommandArgs args) {
    AMF_Value transaction_id;
    AMF_Value command_object;
    AMF_Value publishing_name;
    AMF_Value publishing_type;
    if (!args.read_followed_by_more(transaction_id) || !args.read_followed_by_more(command_object) ||
        !args.read_followed_by_more(publishing_name) || !args.read(publishing_type)) {
        return false;
    }
    if (publishing_type.string != "live") {
        return refuse("publish command must indicate 'live' type, not '%s'\n",
                      publishing_type.string.c_str());
    }
    if (conn.app_name.empty()) {
        return refuse("publish rejected, app mode rejected\n");
    }
    if (!conn.stream_mode.empty()) {
        return refuse("publish rejected, stream mode already set\n");
    }
    conn.stream_mode = "publish";
    conn.stream_name = publishing_name.string;
    if (!is_valid_stream_name(conn.stream_name)) {
        return refuse_stream_name();
    }
    if (!queue_on_status(conn, request, transaction_id, "NetStream.Publish.Start", "publishing started")) {
        return false;
    }
    const std::uint64_t now_us = monotonic_clock_us();
    StreamRecord& record = find_or_insert_stream(conn.stream_name);
    record.last_activity_us = now_us;
    // If another connection is publishing, this one may take the stream over when its media arrives.
    if (record.publisher == NO_CONNECTION) {
        set_publisher(record, conn.conn_idx);
    }
    conn.stall_deadline_us = now_us + FIRST_MEDIA_GRACE_US;
    diag("Connection is publishing '%s'\n", conn.stream_name.str().c_str());
    return true;
}
