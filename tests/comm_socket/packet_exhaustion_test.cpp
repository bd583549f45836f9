// A packet that cannot be printed for want of memory. The allocator of this executable fails on command.
#include <comm_socket_v4.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

namespace {

bool memory_is_exhausted = false;

}  // namespace

// Not inlined: where the compiler sees one of them and not the other, it takes them for mismatched.
[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const memory = memory_is_exhausted ? nullptr : std::malloc(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

TEST(packet_exhaustion, a_packet_that_cannot_be_printed_is_at_least_mentioned) {
    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
    testing::internal::CaptureStderr();
    memory_is_exhausted = true;
    comm_socket_v4_packet_dump_user_friendly(packet, stderr);
    memory_is_exhausted = false;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Packet: no memory to print it\n");
    comm_socket_v4_packet_release(packet);
}
