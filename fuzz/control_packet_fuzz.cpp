// Reads any bytes as a client's requests. The bytes arrive in pieces; every whole frame is decoded, printed
// and encoded again, which must give the same bytes.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "comm_socket/frame_buffer.h"
#include "comm_socket/packet.h"

namespace {

void require(bool holds) {
    if (!holds) {
        abort();
    }
}

// The frame at *at in the input is the one that was just decoded.
void test_round_trip(const std::uint8_t* data, std::size_t size, std::size_t* at,
                     const comm_socket::FrameHead& head, const comm_socket::FrameText& text) {
    require(comm_socket::within_limits(head, text, comm_socket::REQUEST_LIMITS));
    const std::string frame = comm_socket::encode_frame(head, text);
    require(frame.size() <= size - *at);
    require(std::memcmp(frame.data(), data + *at, frame.size()) == 0);
    *at += frame.size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static FILE* nowhere = fopen("/dev/null", "w");
    // The whole input is what a client sends; it also decides, byte by byte, how it is cut into pieces.
    comm_socket::FrameBuffer input(comm_socket::REQUEST_LIMITS);
    std::size_t decoded = 0;
    for (std::size_t read = 0; read < size;) {
        const std::size_t piece = std::min<std::size_t>(size - read, std::size_t{data[read]} + 1);
        input.append(data + read, piece);
        read += piece;
        while (input.state() == comm_socket::FrameState::COMPLETE) {
            comm_socket::FrameHead head;
            comm_socket::FrameText text;
            if (!input.take(&head, &text)) {
                return 0;
            }
            test_round_trip(data, size, &decoded, head, text);
            comm_socket_v4_packet* packet = comm_socket::make_packet(head, std::move(text));
            require(comm_socket_v4_packet_get_command(packet) != nullptr);
            comm_socket_v4_packet_dump_user_friendly(packet, nowhere);
            comm_socket_v4_packet_release(packet);
        }
        if (input.state() == comm_socket::FrameState::BROKEN) {
            return 0;
        }
    }
    return 0;
}
