// The server's end of a connection to one client: its socket, the requests that have not been taken yet, and
// the replies that wait to be sent. Used by the thread that owns the server. Only wait_until_writable blocks.
//
//   OPEN --the peer shuts down its sending side--> HALF_CLOSED --answered and flushed: finish()--> CLOSED
//   OPEN, HALF_CLOSED --the peer disconnects--> CLOSED, complete requests can still be taken
//   OPEN, HALF_CLOSED --drop()--> CLOSED, requests are discarded
//
// 1. CLOSED means fd == -1. Then reply_errno is set and the queue is empty.
// 2. If reply_errno is set while the socket is open, nothing more can be sent, but received bytes
//    are still read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

#include "comm_socket/frame_buffer.h"
#include "comm_socket/wire.h"

namespace comm_socket {

class ClientLink {
  public:
    // Takes ownership of the connected socket.
    explicit ClientLink(int connected_fd);
    ~ClientLink();
    ClientLink(const ClientLink&) = delete;
    ClientLink& operator=(const ClientLink&) = delete;

    [[nodiscard]] bool is_open() const { return fd >= 0; }

    // Reads the bytes that have arrived, within *budget_bytes and the link's own share, and subtracts them
    // from the budget. Drops the client if it breaks the format or leaves a request unfinished for too long.
    // Throws std::bad_alloc.
    void read_some(std::uint64_t now, std::size_t* budget_bytes);

    // Writes what the socket accepts, within the same two limits. Drops the client if its socket has accepted
    // nothing for stall_limit_us.
    void write_some(std::uint64_t now, std::uint64_t stall_limit_us, std::size_t* budget_bytes);

    // Whether a request can be taken now: it is complete, and not too many replies wait for this client.
    [[nodiscard]] bool has_request() const { return has_complete_frame() && can_queue(); }
    [[nodiscard]] bool has_complete_frame() const { return input.state() == FrameState::COMPLETE; }
    // Takes the first request. Requires has_complete_frame(). If it is malformed, drops the client and
    // returns false. Throws std::bad_alloc.
    [[nodiscard]] bool take_request(FrameHead* head, FrameText* text);

    // Closes a half-closed link if nothing waits in either direction. Call only while no request of the
    // client is being answered.
    void finish();

    // Disconnects and discards everything. From then on, sending fails with this error, or with the earlier
    // one if it had already failed.
    void drop(int error);

    // Returns 0, or the errno with which sending to this client fails.
    [[nodiscard]] int send_error() const { return reply_errno; }
    [[nodiscard]] bool can_queue() const;
    // Return the bytes of replies that have not been sent, and of requests that have not been taken.
    [[nodiscard]] std::size_t waiting_bytes() const;
    [[nodiscard]] std::size_t untaken_bytes() const { return input.size(); }
    // Returns the socket for poll; -1 once the link is closed.
    [[nodiscard]] int descriptor() const { return fd; }
    // Writes what the socket accepts at once and queues the rest; a failure shows in send_error(). Requires
    // can_queue() and no send_error(). Throws std::bad_alloc.
    void queue(OutgoingFrame&& frame);

    // Blocks until can_queue(), send_error() or the deadline. If nothing was sent before the deadline, drops
    // the client with ETIMEDOUT.
    void wait_until_writable(std::uint64_t deadline_us);

  private:
    [[nodiscard]] bool wants_to_read() const;
    void test_input_after_reading(std::uint64_t now, bool drained);
    void close_socket(int error);
    // Returns false if the socket accepts no more at present or has failed.
    bool write_once(std::size_t limit_bytes, std::size_t* written);
    void remove_written(std::size_t bytes);

    int fd;
    int reply_errno = 0;

    FrameBuffer input;
    bool input_ended = false;            // the peer will send nothing more
    std::uint64_t frame_started_us = 0;  // when the unfinished frame at the front began; 0: none

    std::deque<OutgoingFrame> output;     // the front one is being sent
    std::size_t front_written_bytes = 0;  // of output.front()
    std::size_t behind_front_bytes = 0;   // in output, not counting the front
    std::uint64_t written_bytes = 0;      // since the link was created
    std::uint64_t write_progress_us = 0;  // when bytes were last sent, or the queue became non-empty
};

}  // namespace comm_socket
