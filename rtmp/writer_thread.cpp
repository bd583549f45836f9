#include "base/diag.h"
#include "core/connection.h"
#include "rtmp/session_threads.h"

void* writer_thread(void* argument) {
    auto& conn = *static_cast<RTMPConnection*>(argument);
    assume_role(conn.writer_role);
    diag("RTMP xmit begin\n");
    while (conn.rtmp_send_packet()) {
    }
    conn.thread2_died.store(true, std::memory_order_release);
    return nullptr;
}
