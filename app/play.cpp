#include <cstddef>
#include <string>

#include "amf/amf_value.h"
#include "app/command_args.h"
#include "app/command_table.h"
#include "app/metadata.h"
#include "app/refusal.h"
#include "app/reply.h"
#include "base/clock.h"
#include "base/diag.h"
#include "core/connection.h"
#include "core/connection_table.h"
#include "core/limits.h"
#include "relay/stream_name.h"
#include "relay/stream_registry.h"

namespace {

// A player that joins late gets the stream's metadata at once. Sequence headers follow with the first media.
void repeat_metadata(RTMPConnection& conn, std::size_t publisher_idx) REQUIRES(conn.mutex, MAIN_THREAD) {
    const RTMPConnection* const publisher = get_connection(publisher_idx);
    if (publisher != nullptr && is_stream_metadata(publisher->metadata)) {
        diag("Repeating publisher's onMeta to new client\n");
        send_metadata(conn, publisher->metadata);
    }
}

}  // namespace

bool handle_play(RTMPConnection& conn, const RTMP_Packet& request, CommandArgs args) {
    AMF_Value transaction_id;
    AMF_Value command_object;
    AMF_Value stream_name;
    // Start and duration may follow; they are ignored for a live stream.
    if (!args.read_followed_by_more(transaction_id) || !args.read_followed_by_more(command_object) ||
        !args.read(stream_name) || !args.skip_optional() || !args.skip_optional()) {
        return false;
    }
    if (conn.app_name.empty()) {
        return refuse("play rejected, app mode rejected\n");
    }
    if (!conn.stream_mode.empty()) {
        return refuse("play rejected, stream mode already set\n");
    }
    conn.stream_mode = "play";
    conn.stream_name = stream_name.string;
    if (!is_valid_stream_name(conn.stream_name)) {
        return refuse_stream_name();
    }
    if (!queue_on_status(conn, request, transaction_id, "NetStream.Play.Start", "play started")) {
        return false;
    }
    stream_subscribe_for_play(conn.stream_name, conn.conn_idx);
    StreamRecord& record = find_or_insert_stream(conn.stream_name);
    record.last_activity_us = monotonic_clock_us();
    if (record.publisher != NO_CONNECTION) {
        repeat_metadata(conn, record.publisher);
    }
    return true;
}
