// One client connection: one slot of the connection table, with its socket, its two threads and its queues.
//
// 1. The main thread creates, services and frees connections. Each has a reader thread and a writer thread of
//    its own, which end by themselves or by cancellation and are joined by the main thread.
// 2. `mutex` guards the two queues, and how many messages were taken from one, and nothing else. On the connection's
//    own threads nothing prints, sleeps or calls a socket while holding it.
// 3. Only the main thread holds two of these mutexes: the publisher's, then one player's.
// 4. Other connections are named by slot index, never by pointer; nothing outside points into a connection.
// 5. The fields stand in groups by who may touch them; the clang build checks those that are annotated.
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

struct RelayedMessage;

class RTMPConnection {
  public:
    // Takes over the accepted descriptor; no thread runs yet. Main thread.
    RTMPConnection(int accepted_fd, std::size_t slot, std::string peer_address);
    RTMPConnection(const RTMPConnection&) = delete;
    RTMPConnection& operator=(const RTMPConnection&) = delete;

    ConnectionMutex mutex;

    // --- fixed while the two threads run
    int fd;                      // the socket; -1 once closed, after both threads were joined
    const std::size_t conn_idx;  // the own slot: identity in the registry and in the control listing
    const std::string address;   // dotted address, ':', port; may be empty

    // --- under the lock
    std::deque<RTMP_Packet> connection_in GUARDED_BY(mutex);      // complete messages for the main thread
    std::deque<OutgoingPacket> connection_out GUARDED_BY(mutex);  // messages for the writer thread
    // taken by the writer thread with its last batch; may have been sent since
    std::size_t out_batch_messages GUARDED_BY(mutex) = 0;

    // --- one thread counts or decides, others read: atomics, and inside the two directions
    ServerSide conn_g_server;
    ClientSide conn_g_client;
    std::atomic<bool> thread_died = false;   // last act of the reader thread
    std::atomic<bool> thread2_died = false;  // last act of the writer thread

    // --- reader thread
    RTMP_Packet in_pkt GUARDED_BY(READER_THREAD);  // the message being read
    std::map<std::uint32_t, ChunkStreamState> chunk_streams GUARDED_BY(READER_THREAD);
    ReadAhead read_ahead GUARDED_BY(READER_THREAD);  // bytes of the socket that cread has not returned yet

    // --- writer thread
    std::vector<OutgoingPacket> out_batch GUARDED_BY(WRITER_THREAD);  // the messages being written

    // --- main thread, core: threads and the wish to end them
    pthread_t thread GUARDED_BY(MAIN_THREAD) = {};      // valid while thread_init
    pthread_t thread2 GUARDED_BY(MAIN_THREAD) = {};     // valid while thread2_init
    bool thread_init GUARDED_BY(MAIN_THREAD) = false;   // the reader was created and not joined
    bool thread2_init GUARDED_BY(MAIN_THREAD) = false;  // the writer was created and not joined
    // the only way to have a connection ended; see idle()
    bool close_requested GUARDED_BY(MAIN_THREAD) = false;
    bool closing GUARDED_BY(MAIN_THREAD) = false;  // a thread is being stopped; for the debugger
    bool closed GUARDED_BY(MAIN_THREAD) = false;   // both were stopped; for the debugger

    // --- main thread, app: what the client has asked for
    std::string app_name GUARDED_BY(MAIN_THREAD);     // accepted by connect; empty: no play, no publish
    std::string stream_mode GUARDED_BY(MAIN_THREAD);  // "publish", "play" or empty; set once
    std::string stream_name GUARDED_BY(MAIN_THREAD);
    std::uint32_t client_id GUARDED_BY(MAIN_THREAD) = 0;  // sent in the connect result
    std::uint32_t stream_id GUARDED_BY(MAIN_THREAD) = 0;  // message stream id handed out by createStream
    bool stream_id_unconfirmed GUARDED_BY(MAIN_THREAD) = false;  // no media has shown yet that it is used
    StreamMetadata metadata GUARDED_BY(MAIN_THREAD);     // a publisher's last onMetaData, whatever its type
    StreamFormat stream_format GUARDED_BY(MAIN_THREAD);  // publisher: its own; player: what it was told

    // --- main thread, publisher: pacing and stall (microseconds of monotonic_clock_us, 0: not yet)
    // first media message examined; on a player: first relayed
    std::uint64_t av_start_us GUARDED_BY(MAIN_THREAD) = 0;
    // first media timestamp that is not 0, milliseconds
    std::uint32_t av_start_ts GUARDED_BY(MAIN_THREAD) = 0;
    // from then on another publisher may take over
    std::uint64_t stall_deadline_us GUARDED_BY(MAIN_THREAD) = 0;

    // --- main thread, relay
    MediaTrack audio GUARDED_BY(MAIN_THREAD);
    MediaTrack video GUARDED_BY(MAIN_THREAD);
    PlayerTimebase timebase GUARDED_BY(MAIN_THREAD);  // player

    // --- connection.cpp
    // Lock and unlock `mutex`; true on success. ConnectionLock below is how they are used.
    [[nodiscard]] bool connection_io_lock() ACQUIRE(mutex);
    [[nodiscard]] bool connection_io_unlock() RELEASE(mutex);
    // Whether the connection is to be kept: socket open, no close requested, and both threads alive or
    // messages still waiting to be handled.
    [[nodiscard]] bool ok() ON_MAIN_THREAD;

    // --- connection_close.cpp
    // Stops and joins both threads, closes the socket, leaves the registry. Takes no lock; never call it
    // while holding this connection's mutex, or the join may wait for ever.
    void close_connection() ON_MAIN_THREAD;
    // Joins a thread that has ended by itself.
    void reap_dead_threads() ON_MAIN_THREAD;

    // --- rtmp/socket_io.cpp
    // Exactly c bytes, or fewer when the peer ends in between; -1 when nothing was read. Counts what it
    // returns.
    ssize_t cread(void* buffer, std::size_t c) ON_READER_THREAD;
    // All c bytes, or fewer when the peer ends in between; -1 when nothing was sent or c is 0. Counts.
    ssize_t cwrite(const void* buffer, std::size_t c) ON_READER_THREAD;

    // --- rtmp/handshake.cpp, rtmp/chunk_reader.cpp, rtmp/reader_thread.cpp, rtmp/packet_queues.cpp
    // All on the reader thread; false ends the reading.
    [[nodiscard]] bool handshake() ON_READER_THREAD;
    [[nodiscard]] bool rtmp_read_packet(RTMP_Packet& pkt) ON_READER_THREAD;
    [[nodiscard]] bool rtmp_proc_packet() ON_READER_THREAD;
    [[nodiscard]] bool add_to_incoming_queue(RTMP_Packet&& pkt) ON_READER_THREAD EXCLUDES(mutex);

    // --- rtmp/chunk_writer.cpp
    // Writer thread: sends the messages that wait, a batch of them, or sleeps when there are none. False: the
    // socket has failed.
    [[nodiscard]] bool rtmp_send_packet() ON_WRITER_THREAD;

    // --- app/dispatch.cpp
    // One pass of the main loop over this connection: requested close, queued messages, dead threads.
    void idle() ON_MAIN_THREAD;

    // --- relay/av_relay.cpp
    // Runs on the player: queues the publisher's message with a rebased timestamp. False: this player gets
    // nothing.
    [[nodiscard]] bool relay_from_publisher(const RelayedMessage& message,
                                            RTMPConnection& publisher) ON_MAIN_THREAD;
};

// The lock of one connection for the rest of a scope. Test held() first: when the lock could not be taken,
// nothing is guarded and nothing is unlocked. An unlock that fails is fatal and names unlock_expression.
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

// How code that names another connection than its own has its failing unlock reported.
inline constexpr const char* OTHER_UNLOCK_EXPRESSION = "p->connection_io_unlock()";
