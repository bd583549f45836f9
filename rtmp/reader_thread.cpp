#include "base/diag.h"
#include "core/connection.h"
#include "rtmp/session_threads.h"

namespace {

// No stop request is ever looked at: the thread ends with the client, at a broken rule, or by cancellation.
void read_session(RTMPConnection& conn) REQUIRES(conn.reader_role) {
    diag("RTMP begin\n");
    if (!conn.handshake()) {
        diag("RTMP handshake failed\n");
        return;
    }
    diag("RTMP handshake complete\n");
    while (conn.rtmp_proc_packet()) {
    }
}

}  // namespace

void* reader_thread(void* argument) {
    auto& conn = *static_cast<RTMPConnection*>(argument);
    assume_role(conn.reader_role);
    read_session(conn);
    conn.thread_died.store(true, std::memory_order_release);
    return nullptr;
}
