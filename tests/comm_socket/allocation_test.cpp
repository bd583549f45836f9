// Packets and clients for which there is no memory, and the memory that is still held after a request or a
// client has gone. The allocator of this executable fails on command and counts the bytes it has given out.
#include <gtest/gtest.h>
#include <malloc.h>

#include <cerrno>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "comm_socket/frame_buffer.h"
#include "comm_socket/include/comm_socket_v4.h"
#include "tests/comm_socket/raw_peer.h"

namespace {

constexpr int UNLIMITED = 1000000;
int allocations_left = UNLIMITED;

constexpr std::size_t LITTLE_BYTES = 1000;
std::size_t held_bytes = 0;

int closes_of_closed_descriptors = 0;

}  // namespace

extern "C" {
int __real_close(int fd);
int __wrap_close(int fd);

int __wrap_close(int fd) {
    const int result = __real_close(fd);
    closes_of_closed_descriptors += result != 0 && errno == EBADF ? 1 : 0;
    return result;
}
}

// Not inlined: a compiler that sees only one of the pair reports a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const memory = allocations_left == 0 ? nullptr : std::malloc(size);
    allocations_left -= allocations_left > 0 ? 1 : 0;
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

TEST(packet_exhaustion, a_packet_that_cannot_be_printed_is_mentioned) {
    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
    testing::internal::CaptureStderr();
    allocations_left = 0;
    comm_socket_v4_packet_dump_user_friendly(packet, stderr);
    allocations_left = UNLIMITED;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Packet: no memory to print it\n");
    comm_socket_v4_packet_release(packet);
}

TEST(packet_exhaustion, a_shared_value_is_never_printed_in_part_whichever_allocation_fails) {
    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
    ASSERT_EQ(comm_socket_v4_packet_begin_writing(packet, 0, "list", ""), 0);
    std::string name(100, 'n');
    const auto keep = [](void* /*owner*/) {};
    ASSERT_EQ(comm_socket_v4_packet_write_nv_pair_shared(packet, "line", "before",
                                                         {name.data(), name.size(), &name, keep}, "after"),
              0);
    ASSERT_EQ(comm_socket_v4_packet_write_end(packet), 0);
    std::string printed;
    int refusals = 0;
    for (; printed.find(name) == std::string::npos; ++refusals) {
        ASSERT_LT(refusals, 50);
        testing::internal::CaptureStderr();
        allocations_left = refusals;
        comm_socket_v4_packet_dump_user_friendly(packet, stderr);
        allocations_left = UNLIMITED;
        printed = testing::internal::GetCapturedStderr();
        if (printed.find(name) == std::string::npos) {
            ASSERT_EQ(printed, "Packet: no memory to print it\n");
        }
    }
    EXPECT_GT(refusals, 3);
    comm_socket_v4_packet_release(packet);
}

TEST(packet_exhaustion, shared_bytes_are_released_once_whichever_allocation_fails) {
    const std::string before(100, 'b');
    int refusals = 0;
    for (int result = -1; result != 0; ++refusals) {
        ASSERT_LT(refusals, 20);
        comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
        ASSERT_EQ(comm_socket_v4_packet_begin_writing(packet, 0, "list", ""), 0);
        int released = 0;
        const auto release = [](void* owner) { ++*static_cast<int*>(owner); };
        allocations_left = refusals;
        result = comm_socket_v4_packet_write_nv_pair_shared(packet, "line", before.c_str(),
                                                            {"name", 4, &released, release}, "after");
        allocations_left = UNLIMITED;
        EXPECT_EQ(released, result == 0 ? 0 : 1);
        EXPECT_EQ(comm_socket_v4_packet_get_pair_count(packet), result == 0 ? 1u : 0u);
        comm_socket_v4_packet_release(packet);
        EXPECT_EQ(released, 1);
    }
    EXPECT_GT(refusals, 3);  // the owner's count, the value, the pair and the part
}

// A second close could hit a descriptor that another thread has opened in between.
TEST(client_exhaustion, a_client_is_closed_once_whichever_allocation_fails) {
    const TemporaryDirectory directory;
    const DrivenServer server(directory.file("socket"));
    closes_of_closed_descriptors = 0;
    int refusals = 0;
    for (bool accepted = false; !accepted; ++refusals) {
        ASSERT_LT(refusals, 20);
        const RawPeer peer(server.path);
        const int before = count_descriptors();
        allocations_left = refusals;
        const int result = comm_socket_v4_idle(server.handle);
        allocations_left = UNLIMITED;
        EXPECT_EQ(result, 0);
        accepted = comm_socket_v4_accept_connection(server.handle) != nullptr;
        EXPECT_EQ(count_descriptors(), accepted ? before + 1 : before);
        EXPECT_EQ(peer.is_closed(), !accepted);
    }
    EXPECT_GT(refusals, 2);  // the client and the count of its requests
    EXPECT_EQ(closes_of_closed_descriptors, 0);
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
