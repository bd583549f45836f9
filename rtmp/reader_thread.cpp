#include "rtmp/reader_thread.h"

#include <utility>

#include "base/diag.h"
#include "rtmp/control_messages.h"
#include "rtmp/packet_queues.h"

bool RTMPConnection::rtmp_proc_packet() {
    in_pkt.chunk.message.release();
    return rtmp_read_packet(in_pkt) && act_on_control_message(*this, in_pkt) &&
           add_to_incoming_queue(std::move(in_pkt)) && acknowledge_if_due(*this) &&
           wait_for_room_in_incoming_queue(*this);
}

void read_session(RTMPConnection& conn) {
    diag("RTMP begin\n");
    if (!conn.handshake()) {
        diag("RTMP handshake failed\n");
        return;
    }
    diag("RTMP handshake complete\n");
    conn.read_ahead.enabled = true;
    while (conn.rtmp_proc_packet()) {
    }
}
