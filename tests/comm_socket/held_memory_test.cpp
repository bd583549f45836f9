// The memory that the server's end of the control socket still holds after a request or a client has gone.
// The allocator of this executable counts it.
#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "comm_socket/frame_buffer.h"
#include "tests/comm_socket/raw_peer.h"

namespace {

constexpr std::size_t LITTLE_BYTES = 1000;

std::atomic<std::size_t> held_bytes{0};

}  // namespace

// Not inlined: a compiler that sees only one of the pair reports a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const memory = std::malloc(size);
    held_bytes += malloc_usable_size(memory);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
    held_bytes -= malloc_usable_size(memory);
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
    operator delete(memory);
}

TEST(held_memory, of_a_long_request_that_has_been_taken_is_given_back) {
    const std::string frame = request_frame(1, std::string(1000000, 'c'));
    const std::size_t before = held_bytes;
    comm_socket::FrameBuffer buffer(comm_socket::REQUEST_LIMITS);
    buffer.append(reinterpret_cast<const unsigned char*>(frame.data()), frame.size());
    EXPECT_GE(held_bytes, before + frame.size());
    {
        comm_socket::FrameHead head;
        comm_socket::FrameText text;
        ASSERT_TRUE(buffer.take(&head, &text));
    }
    EXPECT_LT(held_bytes, before + LITTLE_BYTES);
}

TEST(held_memory, of_clients_that_were_never_accepted_is_given_back) {
    const TemporaryDirectory directory;
    const DrivenServer server(directory.file("socket"));
    const std::size_t before = held_bytes;
    for (int round = 0; round < 20; ++round) {
        {
            std::vector<RawPeer> peers;
            for (int i = 0; i < 50; ++i) {
                peers.emplace_back(server.path);
            }
            server.idle();
        }
        server.idle();
    }
    server.idle();
    EXPECT_LT(held_bytes, before + LITTLE_BYTES);
}
