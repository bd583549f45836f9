#include "rtmp/session_threads.h"

#include <sys/prctl.h>

#include <atomic>

#include "base/diag.h"
#include "core/connection.h"
#include "rtmp/reader_thread.h"

namespace {

// Lets the kernel wake several writers together. A sleep may end this much later, never earlier.
constexpr unsigned long WRITER_TIMER_SLACK_NS = 5000000;

}  // namespace

void* reader_thread(void* argument) {
    auto& conn = *static_cast<RTMPConnection*>(argument);
    assume_role(READER_THREAD);
    read_session(conn);
    conn.thread_died.store(true, std::memory_order_release);
    return nullptr;
}

void* writer_thread(void* argument) {
    auto& conn = *static_cast<RTMPConnection*>(argument);
    assume_role(WRITER_THREAD);
    static_cast<void>(prctl(PR_SET_TIMERSLACK, WRITER_TIMER_SLACK_NS, 0UL, 0UL, 0UL));
    diag("RTMP xmit begin\n");
    while (conn.rtmp_send_packet()) {
    }
    conn.thread2_died.store(true, std::memory_order_release);
    return nullptr;
}
