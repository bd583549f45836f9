// One client connection: a slot of the connection table with its socket, two threads and queues.
//
// 1. The main thread creates, services and frees connections. Each connection has its own reader thread and
//    writer thread. They end by themselves or by cancellation, and the main thread joins them.
// 2. `mutex` guards only the two queues and the number of messages in the writer thread's last batch. The
//    connection's own threads do not print, sleep or use a socket while holding it.
// 3. Only the main thread holds two of these mutexes: the publisher's, then one player's.
// 4. Other connections are identified by slot index, never by pointer. Nothing outside points
//    into a connection.
// 5. The fields are grouped by the thread that may touch them. The clang build checks the annotated ones.
//
//                  new_connection                 a thread ends
//    [free slot] ----------------> [open] ---------------------------> [draining]
//         ^                          |      reap_dead_threads              |
//         |                          | close_requested, or ok() is false   | incoming queue is empty
//         |      free_connection     v                                     |
//         +---------------------- [closed: threads joined, fd -1] <--------+
//                                         close_connection
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

// IWYU pragma: begin_exports
#include "base/shared_text.h"
#include "base/thread_roles.h"
#include "core/connection_mutex.h"
#include "relay/media_track.h"
#include "relay/player_timebase.h"
#include "relay/stream_format.h"
#include "relay/stream_metadata.h"
#include "rtmp/chunk_format.h"
#include "rtmp/link_direction.h"
#include "rtmp/outgoing_packet.h"
#include "rtmp/read_ahead.h"
#include "rtmp/rtmp_packet.h"
// IWYU pragma: end_exports

struct RelayedMessage;

class RTMPConnection {
  public:
    // Takes ownership of the accepted descriptor. Starts no thread. Main thread.
    RTMPConnection(int accepted_fd, std::size_t slot, std::string peer_address);
    RTMPConnection(const RTMPConnection&) = delete;
    RTMPConnection& operator=(const RTMPConnection&) = delete;

    ConnectionMutex mutex;

    // --- fixed while the two threads run
    int fd;                      // the socket; -1 once closed, after both threads have been joined
    const std::size_t conn_idx;  // this connection's slot: its id in the registry and in the control listing
    const std::string address;   // IPv4 address, ':' and port; may be empty

    // --- under the lock
    std::deque<RTMP_Packet> connection_in GUARDED_BY(mutex);      // complete messages for the main thread
    std::deque<OutgoingPacket> connection_out GUARDED_BY(mutex);  // messages for the writer thread
    // number of messages in the writer thread's last batch, which may have been sent since
    std::size_t out_batch_messages GUARDED_BY(mutex) = 0;

    // --- one writing thread, many readers: atomics, here and inside the two directions
    ServerSide conn_g_server;
    ClientSide conn_g_client;
    std::atomic<bool> thread_died = false;   // set by the reader thread as its last action
    std::atomic<bool> thread2_died = false;  // set by the writer thread as its last action

    // --- reader thread
    RTMP_Packet in_pkt GUARDED_BY(READER_THREAD);  // the message being read
    std::map<std::uint32_t, ChunkStreamState> chunk_streams GUARDED_BY(READER_THREAD);
    ReadAhead read_ahead GUARDED_BY(READER_THREAD);  // received bytes that cread has not returned yet

    // --- writer thread
    std::vector<OutgoingPacket> out_batch GUARDED_BY(WRITER_THREAD);  // the messages being written

    // --- main thread, core: the threads and requests to end them
    pthread_t thread GUARDED_BY(MAIN_THREAD) = {};      // valid if thread_init
    pthread_t thread2 GUARDED_BY(MAIN_THREAD) = {};     // valid if thread2_init
    bool thread_init GUARDED_BY(MAIN_THREAD) = false;   // the reader thread exists and is not joined
    bool thread2_init GUARDED_BY(MAIN_THREAD) = false;  // the writer thread exists and is not joined
    // set to request a close; idle() acts on it
    bool close_requested GUARDED_BY(MAIN_THREAD) = false;
    bool closing GUARDED_BY(MAIN_THREAD) = false;  // set before a thread is stopped; for the debugger
    bool closed GUARDED_BY(MAIN_THREAD) = false;   // both threads have been stopped; for the debugger

    // --- main thread, app: what the client has requested
    std::string app_name GUARDED_BY(MAIN_THREAD);         // accepted by connect; play and publish require it
    std::string stream_mode GUARDED_BY(MAIN_THREAD);      // "publish", "play" or empty; set once
    SharedText stream_name GUARDED_BY(MAIN_THREAD);       // shared with the listings that are being sent
    std::uint32_t client_id GUARDED_BY(MAIN_THREAD) = 0;  // sent in the reply to connect
    std::uint32_t stream_id GUARDED_BY(MAIN_THREAD) = 0;  // message stream id, from createStream or media
    // set by createStream; cleared when media arrives on another id
    bool stream_id_unconfirmed GUARDED_BY(MAIN_THREAD) = false;
    StreamMetadata metadata GUARDED_BY(MAIN_THREAD);     // a publisher's last onMetaData, whatever its type
    StreamFormat stream_format GUARDED_BY(MAIN_THREAD);  // a publisher's own, or what a player was told

    // --- main thread, publisher: pacing and stall (in microseconds of monotonic_clock_us; 0 if not set)

    // when the first media message was examined; on a player, when the first one was relayed
    std::uint64_t av_start_us GUARDED_BY(MAIN_THREAD) = 0;
    // first media timestamp other than 0, in milliseconds
    std::uint32_t av_start_ts GUARDED_BY(MAIN_THREAD) = 0;
    // when another publisher may take over
    std::uint64_t stall_deadline_us GUARDED_BY(MAIN_THREAD) = 0;

    // --- main thread, relay
    MediaTrack audio GUARDED_BY(MAIN_THREAD);
    MediaTrack video GUARDED_BY(MAIN_THREAD);
    PlayerTimebase timebase GUARDED_BY(MAIN_THREAD);  // player

    // --- connection.cpp
    // Lock and unlock `mutex`; return whether that succeeded. Used through ConnectionLock below.
    [[nodiscard]] bool connection_io_lock() ACQUIRE(mutex);
    [[nodiscard]] bool connection_io_unlock() RELEASE(mutex);
    // Whether to keep the connection: the socket is open, no close is requested, and both threads are running
    // or messages still wait to be handled.
    [[nodiscard]] bool ok() ON_MAIN_THREAD;

    // --- connection_close.cpp
    // Stops and joins both threads, closes the socket and leaves the registry. Takes no lock. Never call it
    // while holding this connection's mutex: the join might never return.
    void close_connection() ON_MAIN_THREAD;
    // Joins threads that have ended by themselves.
    void reap_dead_threads() ON_MAIN_THREAD;

    // --- rtmp/socket_io.cpp
    // Reads c bytes, or fewer if the peer closes first, and counts them. Returns the number of bytes read, or
    // -1 if there were none.
    ssize_t cread(void* buffer, std::size_t c) ON_READER_THREAD;
    // Sends c bytes, or fewer if the peer closes first, and counts them. Returns the number of bytes sent, or
    // -1 if there were none.
    ssize_t cwrite(const void* buffer, std::size_t c) ON_READER_THREAD;

    // --- rtmp/handshake.cpp, rtmp/chunk_reader.cpp, rtmp/reader_thread.cpp, rtmp/packet_queues.cpp
    // Reader thread. If one of these returns false, reading ends.
    [[nodiscard]] bool handshake() ON_READER_THREAD;
    [[nodiscard]] bool rtmp_read_packet(RTMP_Packet& pkt) ON_READER_THREAD;
    [[nodiscard]] bool rtmp_proc_packet() ON_READER_THREAD;
    [[nodiscard]] bool add_to_incoming_queue(RTMP_Packet&& pkt) ON_READER_THREAD EXCLUDES(mutex);

    // --- rtmp/chunk_writer.cpp
    // Writer thread. Sends a batch of the waiting messages, or sleeps if there are none. Returns false if the
    // socket has failed.
    [[nodiscard]] bool rtmp_send_packet() ON_WRITER_THREAD;

    // --- app/dispatch.cpp
    // One pass of the main loop over this connection: a requested close, queued messages, threads
    // that have ended.
    void idle() ON_MAIN_THREAD;

    // --- relay/av_relay.cpp
    // Called on the player. Queues the publisher's message with a rebased timestamp. Returns false if the
    // message was not queued.
    [[nodiscard]] bool relay_from_publisher(const RelayedMessage& message,
                                            RTMPConnection& publisher) ON_MAIN_THREAD;
};

// Holds the lock of one connection until the end of the scope. Test held() first: if the lock could not be
// taken, nothing is guarded and nothing is unlocked. A failing unlock is fatal and reported
// with unlock_expression.
class SCOPED_CAPABILITY ConnectionLock {
  public:
    explicit ConnectionLock(RTMPConnection& connection,
                            const char* unlock_expression = "connection_io_unlock()",
                            const char* calling_function = __builtin_FUNCTION()) ACQUIRE(connection.mutex);
    ConnectionLock(const ConnectionLock&) = delete;
    ConnectionLock& operator=(const ConnectionLock&) = delete;
    ~ConnectionLock() RELEASE();

    [[nodiscard]] bool held() const { return locked; }

  private:
    RTMPConnection& conn;
    const char* const expression;
    const char* const function;
    const bool locked;
};

// The unlock_expression for code that locks a connection other than its own.
inline constexpr const char* OTHER_UNLOCK_EXPRESSION = "p->connection_io_unlock()";
