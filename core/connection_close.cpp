#include <pthread.h>
#include <unistd.h>

#include <atomic>

#include "base/check.h"
#include "base/diag.h"
#include "core/connection.h"
#include "core/limits.h"
#include "relay/stream_registry.h"

namespace {

// Both threads are stopped in the same way; only the messages differ.
struct ThreadTexts {
    const char* not_cancelling;
    const char* cancel_failed;
    const char* join_failed;
    const char* died;
    const char* unexpected;
};

constexpr ThreadTexts READER_TEXTS{"Not cancelling thread, it died\n", "WARNING: Failure to cancel thread\n",
                                   "WARNING: Failure to pthread_join\n", "Thread 1 died\n",
                                   "WARNING: Thread terminated unexpectedly\n"};
constexpr ThreadTexts WRITER_TEXTS{
    "Not cancelling thread2, it died\n", "WARNING: Failure to cancel thread2\n",
    "WARNING: Failure to pthread_join2\n", "Thread 2 died\n", "WARNING: Thread2 terminated unexpectedly\n"};

void stop_thread(pthread_t thread, bool& init, bool died, const ThreadTexts& texts) {
    if (died) {
        diag("%s", texts.not_cancelling);
    } else if (pthread_cancel(thread) != 0) {
        diag("%s", texts.cancel_failed);
    }
    if (pthread_join(thread, nullptr) != 0) {
        diag("%s", texts.join_failed);
    }
    init = false;
}

void reap_thread(pthread_t thread, bool& init, bool socket_open, const ThreadTexts& texts) {
    diag("%s", texts.died);
    if (pthread_join(thread, nullptr) != 0) {
        return;  // The next pass tries again.
    }
    if (socket_open) {
        diag("%s", texts.unexpected);
    }
    init = false;
}

void stop_threads(RTMPConnection& conn) ON_MAIN_THREAD {
    if (conn.thread_init) {
        conn.closing = true;
        stop_thread(conn.thread, conn.thread_init, conn.thread_died.load(std::memory_order_acquire),
                    READER_TEXTS);
    }
    if (conn.thread2_init) {
        conn.closing = true;
        stop_thread(conn.thread2, conn.thread2_init, conn.thread2_died.load(std::memory_order_acquire),
                    WRITER_TEXTS);
    }
}

}  // namespace

void RTMPConnection::close_connection() {
    stop_threads(*this);
    closed = true;
    close_requested = false;
    stop_threads(*this);
    CHECK(!thread_init);

    // Close only now: if a descriptor is closed while a thread still uses it, it may be reused at once for
    // another file.
    if (fd >= 0) {
        close(fd);
        fd = -1;
    }
    stream_unsubscribe_for_play(stream_name, conn_idx);
    // intended: this also leaves a record for the empty name; dispose_idle_streams() removes it.
    StreamRecord& record = find_or_insert_stream(stream_name);
    if (record.publisher == conn_idx) {
        record.publisher = NO_CONNECTION;
    }
}

void RTMPConnection::reap_dead_threads() {
    if (thread_init && thread_died.load(std::memory_order_acquire)) {
        reap_thread(thread, thread_init, fd >= 0, READER_TEXTS);
    }
    if (thread2_init && thread2_died.load(std::memory_order_acquire)) {
        reap_thread(thread2, thread2_init, fd >= 0, WRITER_TEXTS);
    }
}
