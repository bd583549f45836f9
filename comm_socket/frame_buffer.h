// Bytes that have arrived, until they are whole frames. Both ends read through one. No I/O.
#pragma once

#include <cstddef>
#include <vector>

#include "comm_socket/wire.h"

namespace comm_socket {

class FrameBuffer {
  public:
    // The limits must outlive the buffer.
    explicit FrameBuffer(const FrameLimits& accepted) : limits(accepted) {}

    // Appends n bytes; throws std::bad_alloc. Memory follows the bytes that came, not the length they
    // announce.
    void append(const unsigned char* s, std::size_t n);

    // Of the frame at the front: BROKEN is its header, COMPLETE means that all of it is here.
    [[nodiscard]] FrameState state() const;

    // Reads the flags and the request id of the frame at the front, whose body need not be whole. False, and *head
    // unchanged, while they have not arrived or if its header is broken.
    [[nodiscard]] bool peek(FrameHead* head) const;

    // Requires state() == COMPLETE. Decodes the frame and removes it. False if its body is broken; then
    // nothing has changed.
    [[nodiscard]] bool take(FrameHead* head, FrameText* text);

    [[nodiscard]] std::size_t size() const { return bytes.size() - start; }
    // Drops everything and gives the memory back.
    void clear();

  private:
    const FrameLimits& limits;
    std::vector<unsigned char> bytes;
    std::size_t start = 0;  // bytes before it have been taken
};

}  // namespace comm_socket
