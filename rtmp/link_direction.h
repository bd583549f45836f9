// The two directions of a connection: byte counters, acknowledgement state and chunk sizes. conn_g_server is its
// ServerSide, conn_g_client its ClientSide.
#pragma once

#include <atomic>
#include <cstdint>

#include "base/thread_roles.h"
#include "rtmp/chunk_format.h"

struct LinkDirection {
    LinkDirection(bool acknowledge_at_once, std::uint32_t window)
        : ack_flag(acknowledge_at_once), window_ack_size(window) {}

    std::atomic<std::uint64_t> bytes_total = 0;  // the thread that counts; the control listing reads it

    // --- reader thread
    bool ack_flag GUARDED_BY(READER_THREAD);  // acknowledge the next message whatever the counts say
    std::uint32_t window_ack_size GUARDED_BY(READER_THREAD);  // in bytes; 0: never by count
};

// The server's own side: bytes received from the client, their acknowledgement, and the chunk size the server sends
// with.
struct ServerSide : LinkDirection {
    using LinkDirection::LinkDirection;

    std::uint32_t bytes_unacked GUARDED_BY(READER_THREAD) = 0;   // since the last acknowledgement
    std::atomic<std::uint32_t> chunk_size = DEFAULT_CHUNK_SIZE;  // writer thread; the main thread looks at it
};

// The client's side: bytes sent to the client, in the handshake by the reader thread, and the chunk size the client
// sends with.
struct ClientSide : LinkDirection {
    using LinkDirection::LinkDirection;

    std::uint32_t bytes_unacked GUARDED_BY(WRITER_THREAD) = 0;  // since the last acknowledgement
    std::uint32_t chunk_size GUARDED_BY(READER_THREAD) = DEFAULT_CHUNK_SIZE;
};

// The acknowledgement rule, as values. An acknowledgement is due when asked for, or when a window is full.
[[nodiscard]] constexpr bool window_is_full(std::uint32_t window_ack_size, std::uint32_t bytes_unacked) {
    return window_ack_size != 0 && window_ack_size <= bytes_unacked;
}

// What stays unacknowledged after an acknowledgement. The cap is deliberate: never more than one window is
// carried into the next period, so a burst does not cause a train of acknowledgements.
[[nodiscard]] constexpr std::uint32_t unacked_after_acknowledgement(std::uint32_t window_ack_size,
                                                                    std::uint32_t bytes_unacked) {
    if (!window_is_full(window_ack_size, bytes_unacked)) {
        return bytes_unacked;
    }
    const std::uint32_t rest = bytes_unacked - window_ack_size;
    return rest < window_ack_size ? rest : window_ack_size;
}
