#include "core/connection.h"

#include <utility>

#include "base/check.h"
#include "base/diag.h"
#include "core/switches.h"

RTMPConnection::RTMPConnection(int accepted_fd, std::size_t slot, std::string peer_address)
    : fd(accepted_fd),
      conn_idx(slot),
      address(std::move(peer_address)),
      conn_g_server(!opt_no_def_ack, opt_no_def_ack ? 0 : 1),
      conn_g_client(!opt_no_def_ack, opt_no_def_ack ? 0 : 1) {
    // The writer thread fills out_batch under the lock and must not allocate there, so reserve memory now.
    out_batch.reserve(MAX_BATCH_MESSAGES);
}

// The checker cannot follow a lock that may fail, so it checks only the uses of ConnectionLock.
bool RTMPConnection::connection_io_lock() NO_THREAD_SAFETY_ANALYSIS {
    return pthread_mutex_lock(&mutex.handle) == 0;
}

bool RTMPConnection::connection_io_unlock() NO_THREAD_SAFETY_ANALYSIS {
    return pthread_mutex_unlock(&mutex.handle) == 0;
}

ConnectionLock::ConnectionLock(RTMPConnection& connection, const char* unlock_expression,
                               const char* calling_function) NO_THREAD_SAFETY_ANALYSIS
    : conn(connection),
      expression(unlock_expression),
      function(calling_function),
      locked(connection.connection_io_lock()) {}

ConnectionLock::~ConnectionLock() NO_THREAD_SAFETY_ANALYSIS {
    if (locked && !conn.connection_io_unlock()) {
        check_failed(expression, function);
    }
}

bool RTMPConnection::ok() {
    bool messages_waiting = false;
    {
        const ConnectionLock lock(*this);
        if (!lock.held()) {
            return refuse("Lock fail\n");
        }
        messages_waiting = !connection_in.empty();
    }
    return fd >= 0 && ((thread_init && thread2_init) || messages_waiting) && !close_requested;
}
