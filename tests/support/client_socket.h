// The socket of a test's client: every wait has a deadline and throws TestFailure when it passes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tests/support/time_limits.h"
#include "tests/support/wire_bytes.h"

enum class CloseKind { END_OF_STREAM, RESET };

class ClientSocket {
  public:
    ~ClientSocket() { close(); }
    ClientSocket(ClientSocket&& other) noexcept;
    ClientSocket& operator=(ClientSocket&&) = delete;

    void send_bytes(std::string_view bytes, Milliseconds wait = DEFAULT_WAIT);
    // False if the server has closed the connection; some of the bytes may have been sent.
    [[nodiscard]] bool try_send_bytes(std::string_view bytes, Milliseconds wait = DEFAULT_WAIT);
    // Returns the bytes sent so far.
    std::uint64_t bytes_sent() const { return sent_bytes; }
    // Whether the end of the stream or a reset has been read.
    bool closed_by_server() const { return peer_closed; }

    void half_close() const;
    void close();
    bool is_open() const { return fd >= 0; }
    int descriptor() const { return fd; }

  protected:
    explicit ClientSocket(int descriptor) : fd(descriptor) {}

    enum class Fill { SOME, TIMED_OUT, CLOSED };
    // Receives more into the buffer.
    Fill fill_buffer(TimePoint deadline);
    // Removes bytes from the beginning of the buffer. Throws if the server does not send as many.
    Bytes take_bytes(std::size_t count, TimePoint deadline);

    // Used by the reading thread.
    Bytes buffer;
    TimePoint buffer_filled;
    CloseKind close_kind = CloseKind::END_OF_STREAM;

  private:
    int fd;
    std::uint64_t sent_bytes = 0;
    bool peer_closed = false;
};
