// The server's end of one client: its socket, what it has sent and not yet been asked about, and the replies
// that wait for it. Never blocks. Used by the thread that owns the server.
//
//   OPEN --the peer shuts its sending side--> HALF_CLOSED --answered and flushed: finish()--> CLOSED
//   OPEN, HALF_CLOSED --the peer is gone--> CLOSED, complete requests stay to be taken
//   OPEN, HALF_CLOSED --drop()--> CLOSED, nothing stays
//
// 1. CLOSED is fd == -1, and then reply_errno is set and the queue is empty.
// 2. reply_errno set while the socket is open: nothing can be sent any more, what was received is still to be
// read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

#include "comm_socket/frame_buffer.h"

namespace comm_socket {

class ClientLink {
  public:
    // Takes the connected socket over and closes it at the end.
    explicit ClientLink(int connected_fd);
    ~ClientLink();
    ClientLink(const ClientLink&) = delete;
    ClientLink& operator=(const ClientLink&) = delete;

    [[nodiscard]] bool is_open() const { return fd >= 0; }

    // Reads what is there, as far as *budget_bytes and the link's own share go, and drops the client if it
    // breaks the format or leaves a request unfinished for too long. Throws std::bad_alloc.
    void read_some(std::uint64_t now, std::size_t* budget_bytes);

    // Writes what the socket takes, as far as *budget_bytes and the link's own share go, and drops a client
    // that has taken nothing for stall_limit_us.
    void write_some(std::uint64_t now, std::uint64_t stall_limit_us, std::size_t* budget_bytes);

    // A request can be taken now: it is complete, and not too many replies wait for this client.
    [[nodiscard]] bool has_request() const { return has_complete_frame() && can_queue(); }
    [[nodiscard]] bool has_complete_frame() const { return input.state() == FrameState::COMPLETE; }
    // Requires has_complete_frame(). False: it was broken, and the client is dropped. Throws std::bad_alloc.
    [[nodiscard]] bool take_request(FrameHead* head, FrameText* text);

    // Closes a half-closed link once nothing waits in either direction. Call it when no request of the client
    // is being answered.
    void finish();

    // Disconnects and discards everything; from now on sending fails with error.
    void drop(int error);

    // 0, or the errno with which sending to this client fails.
    [[nodiscard]] int send_error() const { return reply_errno; }
    [[nodiscard]] bool can_queue() const;
    // Bytes of replies that have not left yet, and of requests that have not been taken.
    [[nodiscard]] std::size_t waiting_bytes() const;
    [[nodiscard]] std::size_t untaken_bytes() const { return input.size(); }
    // For poll; -1 once the link is closed.
    [[nodiscard]] int descriptor() const { return fd; }
    // Requires can_queue() and no send_error(). Writes what the socket takes at once, queues the rest; the
    // result may be seen in send_error(). Throws std::bad_alloc.
    void queue(OutgoingFrame&& frame);

    // Blocks until can_queue(), send_error() or the deadline. If nothing left meanwhile, send_error() is
    // ETIMEDOUT afterwards, and the client is dropped.
    void wait_until_writable(std::uint64_t deadline_us);

  private:
    [[nodiscard]] bool wants_to_read() const;
    void test_input_after_reading(std::uint64_t now, bool drained);
    void close_socket(int error);
    // False when the socket takes nothing more at present.
    bool write_once(std::size_t limit_bytes, std::size_t* written);
    void remove_written(std::size_t bytes);

    int fd;
    int reply_errno = 0;

    FrameBuffer input;
    bool input_ended = false;            // the peer sends nothing more
    std::uint64_t frame_started_us = 0;  // since when the frame at the front is unfinished; 0 = it is not

    std::deque<OutgoingFrame> output;     // the front one is the reply under way
    std::size_t front_written_bytes = 0;  // of output.front()
    std::size_t behind_front_bytes = 0;   // in output, without its front
    std::uint64_t written_bytes = 0;      // ever
    std::uint64_t write_progress_us = 0;  // when bytes last left, or the queue got its first
};

}  // namespace comm_socket
