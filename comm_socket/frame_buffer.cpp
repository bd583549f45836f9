#include "comm_socket/frame_buffer.h"

#include <iterator>

namespace comm_socket {

void FrameBuffer::append(const unsigned char* s, std::size_t n) {
    if (start > bytes.size() / 2) {
        bytes.erase(bytes.begin(), std::next(bytes.begin(), static_cast<std::ptrdiff_t>(start)));
        start = 0;
    }
    bytes.insert(bytes.end(), s, s + n);
}

FrameState FrameBuffer::state() const {
    std::size_t body_bytes = 0;
    const FrameState header =
        decode_header(bytes.data() + start, bytes.data() + bytes.size(), limits, &body_bytes);
    if (header == FrameState::COMPLETE && size() - FRAME_HEADER_BYTES < body_bytes) {
        return FrameState::INCOMPLETE;
    }
    return header;
}

bool FrameBuffer::peek(FrameHead* head) const {
    return peek_head(bytes.data() + start, bytes.data() + bytes.size(), limits, head);
}

bool FrameBuffer::take(FrameHead* head, FrameText* text) {
    const unsigned char* s = bytes.data() + start;
    std::size_t body_bytes = 0;
    if (decode_header(s, bytes.data() + bytes.size(), limits, &body_bytes) != FrameState::COMPLETE) {
        return false;
    }
    s += FRAME_HEADER_BYTES;
    if (!decode_body(s, s + body_bytes, limits, head, text)) {
        return false;
    }
    start += FRAME_HEADER_BYTES + body_bytes;
    if (size() == 0) {
        clear();
    }
    return true;
}

void FrameBuffer::clear() {
    bytes = std::vector<unsigned char>();  // {} would keep the memory
    start = 0;
}

}  // namespace comm_socket
