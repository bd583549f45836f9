// One direction of a connection: its byte counters and, for received bytes, the acknowledgement state.
//
// A connection has two. conn_g_server is the server's own side: bytes received from the client, their
// acknowledgement, and the chunk size the server sends with. conn_g_client is the client's side: bytes sent
// to the client, and the chunk size the client sends with.
#pragma once

#include <atomic>
#include <cstdint>

#include "rtmp/chunk_format.h"

// ChunkSize is std::uint32_t where one thread alone uses the chunk size, and atomic where another one looks at it.
template <typename ChunkSize>
struct LinkDirection {
    LinkDirection(bool acknowledge_at_once, std::uint32_t window)
        : ack_flag(acknowledge_at_once), window_ack_size(window) {}

    // --- the thread that counts: of conn_g_server the reader, of conn_g_client the reader in the handshake, then the
    // writer; the control listing reads bytes_total
    std::atomic<std::uint64_t> bytes_total = 0;
    std::uint32_t bytes_unacked = 0;  // bytes since the last acknowledgement

    // --- reader thread
    bool ack_flag;                  // acknowledge the next message whatever the counts say
    std::uint32_t window_ack_size;  // acknowledgement window in bytes; 0: never by count

    // --- of conn_g_server the writer thread, and the main thread looks at it; of conn_g_client the reader thread
    ChunkSize chunk_size = DEFAULT_CHUNK_SIZE;
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
