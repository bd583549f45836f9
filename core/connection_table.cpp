#include "core/connection_table.h"

#include <pthread.h>

#include <array>
#include <memory>
#include <utility>

#include "base/check.h"
#include "base/diag.h"
#include "core/connection.h"
#include "core/heap.h"
#include "core/limits.h"
#include "relay/stream_registry.h"
#include "rtmp/session_threads.h"

std::size_t connections_free_scan = 0;

namespace {

std::array<std::unique_ptr<RTMPConnection>, MAX_CONNECTIONS> connections GUARDED_BY(MAIN_THREAD);

// Moves connections_free_scan to a free slot and returns true. If there is none, moves it one past the start
// and returns false. The start slot is probed again last.
bool find_free_slot() ON_MAIN_THREAD {
    bool wrapped = false;
    for (std::size_t probe = 0; probe < MAX_CONNECTIONS + 1; ++probe) {
        if (!wrapped) {
            CHECK(connections_free_scan < MAX_CONNECTIONS);
        }
        if (connections[connections_free_scan] == nullptr) {
            return true;
        }
        ++connections_free_scan;
        wrapped = connections_free_scan == MAX_CONNECTIONS;
        if (wrapped) {
            connections_free_scan = 0;
        }
    }
    return false;
}

bool start_thread(pthread_t& thread, void* (*entry)(void*), RTMPConnection& conn) {
    if (pthread_create(&thread, nullptr, entry, &conn) != 0) {
        return refuse("WARNING: Failure to create thread\n");
    }
    return true;
}

}  // namespace

RTMPConnection* new_connection(int fd, const char* address) {
    if (fd < 0 || !find_free_slot()) {
        return nullptr;
    }
    auto conn = std::make_unique<RTMPConnection>(fd, connections_free_scan, address);
    conn->thread_init = start_thread(conn->thread, reader_thread, *conn);
    conn->thread2_init = start_thread(conn->thread2, writer_thread, *conn);
    connections[connections_free_scan] = std::move(conn);
    return connections[connections_free_scan].get();
}

RTMPConnection* get_connection(std::size_t i) {
    CHECK(i < MAX_CONNECTIONS);
    return connections[i].get();
}

void free_connection(std::size_t i) {
    CHECK(i < size_t(MAX_CONNECTIONS));
    if (connections[i] != nullptr) {
        connections[i]->close_connection();
        connections[i].reset();
        expect_free_memory();
    }
}

void free_all_connections() {
    for (std::size_t i = 0; i < MAX_CONNECTIONS; ++i) {
        free_connection(i);
    }
}

void idle_connection(std::size_t i) {
    CHECK(i < size_t(MAX_CONNECTIONS));
    RTMPConnection* const conn = connections[i].get();
    if (conn == nullptr) {
        return;
    }
    conn->idle();
    if (!conn->ok()) {
        diag("Dropping connection\n");
        free_connection(i);
    }
}

void idle_all_connections() {
    for (std::size_t i = 0; i < MAX_CONNECTIONS; ++i) {
        idle_connection(i);
    }
    dispose_idle_streams();
}
