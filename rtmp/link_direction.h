// The two directions of a connection: byte counters, acknowledgement state and chunk sizes. A connection's
// conn_g_server is the ServerSide and its conn_g_client the ClientSide.
#pragma once

#include <atomic>
#include <cstdint>

#include "base/thread_roles.h"
#include "rtmp/chunk_format.h"

struct LinkDirection {
    LinkDirection(bool acknowledge_at_once, std::uint32_t window)
        : ack_flag(acknowledge_at_once), window_ack_size(window) {}

    std::atomic<std::uint64_t> bytes_total =
        0;  // written by the thread that sends or receives; read by the control listing

    // --- reader thread
    bool ack_flag GUARDED_BY(READER_THREAD);  // acknowledge the next message whatever the counts are
    std::uint32_t window_ack_size GUARDED_BY(READER_THREAD);  // in bytes; 0: never acknowledge by count
};

// The server's side: bytes received from the client, their acknowledgement, and the chunk size of what
// the server sends.
struct ServerSide : LinkDirection {
    using LinkDirection::LinkDirection;

    std::uint32_t bytes_unacked GUARDED_BY(READER_THREAD) = 0;   // received, not yet acknowledged
    std::atomic<std::uint32_t> chunk_size = DEFAULT_CHUNK_SIZE;  // writer thread; read by the main thread
};

// The client's side: bytes sent to the client (during the handshake, by the reader thread) and the chunk size
// of what the client sends.
struct ClientSide : LinkDirection {
    using LinkDirection::LinkDirection;

    std::uint32_t bytes_unacked GUARDED_BY(WRITER_THREAD) = 0;  // all bytes sent, modulo 2^32; never reset
    std::uint32_t chunk_size GUARDED_BY(READER_THREAD) = DEFAULT_CHUNK_SIZE;
};

// Whether a window is full. An acknowledgement is due when the window is full or ack_flag is set.
[[nodiscard]] constexpr bool window_is_full(std::uint32_t window_ack_size, std::uint32_t bytes_unacked) {
    return window_ack_size != 0 && window_ack_size <= bytes_unacked;
}

// Returns the bytes that stay unacknowledged after an acknowledgement. intended: at most one window is
// carried over, so a burst does not cause a series of acknowledgements.
[[nodiscard]] constexpr std::uint32_t unacked_after_acknowledgement(std::uint32_t window_ack_size,
                                                                    std::uint32_t bytes_unacked) {
    if (!window_is_full(window_ack_size, bytes_unacked)) {
        return bytes_unacked;
    }
    const std::uint32_t rest = bytes_unacked - window_ack_size;
    return rest < window_ack_size ? rest : window_ack_size;
}
