// Collects received bytes until they form whole frames. Used by both ends. No I/O.
#pragma once

#include <cstddef>
#include <vector>

#include "comm_socket/wire.h"

namespace comm_socket {

class FrameBuffer {
  public:
    // The limits must outlive the buffer.
    explicit FrameBuffer(const FrameLimits& accepted) : limits(accepted) {}

    // Appends n bytes. Memory grows with the bytes received, not with the length they announce.
    // Throws std::bad_alloc.
    void append(const unsigned char* s, std::size_t n);

    // Returns the state of the first frame. BROKEN means that its header is malformed, COMPLETE that the
    // whole frame has arrived.
    [[nodiscard]] FrameState state() const;

    // Reads the flags and the request id of the first frame, which may be incomplete. Returns false and
    // leaves *head unchanged if they have not arrived or the header is malformed.
    [[nodiscard]] bool peek(FrameHead* head) const;

    // Decodes and removes the first frame. Requires state() == COMPLETE. Returns false and changes nothing if
    // the body is malformed.
    [[nodiscard]] bool take(FrameHead* head, FrameText* text);

    [[nodiscard]] std::size_t size() const { return bytes.size() - start; }
    // Discards everything and frees the memory.
    void clear();

  private:
    const FrameLimits& limits;
    std::vector<unsigned char> bytes;
    std::size_t start = 0;  // earlier bytes have been taken
};

}  // namespace comm_socket
