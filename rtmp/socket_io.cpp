// The socket primitives of a connection. cread and cwrite block and count bytes; read_whole and write_whole
// are built on them and are all or nothing.
#include "rtmp/socket_io.h"

#include <sys/socket.h>

#include <atomic>
#include <cstdint>

#include "base/check.h"

ssize_t RTMPConnection::cread(void* buffer, std::size_t c) {
    auto* d = static_cast<unsigned char*>(buffer);
    std::size_t done = read_ahead.take(d, c);
    c -= done;
    while (c != 0) {
        ssize_t ret = 0;
        if (read_ahead.enabled && c < ReadAhead::CAPACITY_BYTES) {
            ret = read_ahead.fill(fd) ? static_cast<ssize_t>(read_ahead.take(d + done, c)) : -1;
        } else {
            ret = recv(fd, d + done, c, 0);
        }
        if (ret <= 0) {
            break;
        }
        CHECK((size_t)ret <= c);
        done += static_cast<std::size_t>(ret);
        c -= static_cast<std::size_t>(ret);
    }
    if (done == 0) {
        return -1;
    }
    conn_g_server.bytes_total.fetch_add(done, std::memory_order_relaxed);
    conn_g_server.bytes_unacked += static_cast<std::uint32_t>(done);
    return static_cast<ssize_t>(done);
}

ssize_t RTMPConnection::cwrite(const void* buffer, std::size_t c) {
    const auto* s = static_cast<const unsigned char*>(buffer);
    std::size_t done = 0;
    while (c != 0) {
        const ssize_t ret = send(fd, s + done, c, MSG_NOSIGNAL);
        if (ret <= 0) {
            break;
        }
        CHECK((size_t)ret <= c);
        done += static_cast<std::size_t>(ret);
        c -= static_cast<std::size_t>(ret);
    }
    if (done == 0) {
        return -1;
    }
    assume_role(WRITER_THREAD);  // The writer thread sends nothing before the handshake is complete.
    conn_g_client.bytes_total.fetch_add(done, std::memory_order_relaxed);
    conn_g_client.bytes_unacked += static_cast<std::uint32_t>(done);
    return static_cast<ssize_t>(done);
}

bool read_whole(RTMPConnection& conn, void* d, std::size_t c) {
    return conn.fd >= 0 && conn.cread(d, c) == static_cast<ssize_t>(c);
}

bool write_whole(RTMPConnection& conn, const void* s, std::size_t c) {
    return conn.fd >= 0 && conn.cwrite(s, c) == static_cast<ssize_t>(c);
}
