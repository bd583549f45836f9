// The data shared by the fault injector and its test, in a file that both map.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string_view>

enum class FaultCall : std::uint32_t {
    SOCKET,
    BIND,
    LISTEN,
    ACCEPT4,
    SETSOCKOPT,
    RECV,
    SEND,
    SENDMSG,
    PTHREAD_CREATE,
    PTHREAD_CANCEL,
    PTHREAD_JOIN,
    PTHREAD_MUTEX_LOCK,
    PTHREAD_MUTEX_UNLOCK,
    NOTHROW_NEW,
    NEW,
};

// The names used in V9_FAULT, in the order above.
inline constexpr std::array<std::string_view, 15> FAULT_CALL_NAMES{"socket",
                                                                   "bind",
                                                                   "listen",
                                                                   "accept4",
                                                                   "setsockopt",
                                                                   "recv",
                                                                   "send",
                                                                   "sendmsg",
                                                                   "pthread_create",
                                                                   "pthread_cancel",
                                                                   "pthread_join",
                                                                   "pthread_mutex_lock",
                                                                   "pthread_mutex_unlock",
                                                                   "nothrow_new",
                                                                   "new"};

enum class FaultThread : std::uint32_t { MAIN, READER, WRITER };

inline constexpr std::uint32_t NO_FAULT_CONNECTION = 0xFFFFFFFF;
inline constexpr std::size_t MAX_FAULT_FRAMES = 32;

// The first call that was made to fail.
struct FaultRecord {
    FaultThread thread = FaultThread::MAIN;
    // The connection of the thread or mutex, counted from 0 in the order of acceptance.
    std::uint32_t connection = NO_FAULT_CONNECTION;
    // The number of the call among those of this kind by this thread, from 1.
    std::uint32_t call_of_thread = 0;
    // What this thread had done before: calls of sendmsg, bytes received by recv.
    std::uint32_t sendmsg_calls = 0;
    std::uint64_t received_bytes = 0;
    // Whether the socket is the control socket or one of its clients.
    std::uint32_t on_control_socket = 0;
    // For pthread_cancel and pthread_join: the target's connection, and which of its two threads.
    std::uint32_t target_connection = NO_FAULT_CONNECTION;
    FaultThread target_thread = FaultThread::MAIN;
    // Return addresses, innermost first, relative to the program's load address.
    std::uint32_t frame_count = 0;
    std::array<std::uint64_t, MAX_FAULT_FRAMES> frames{};
};

struct FaultPage {
    // The number of calls by the program, by FaultCall.
    std::array<std::atomic<std::uint64_t>, FAULT_CALL_NAMES.size()> calls{};
    // The number of these calls that match the plan.
    std::atomic<std::uint64_t> seen{0};
    std::atomic<std::uint32_t> injected{0};
    // Valid once `injected` is not 0.
    FaultRecord first;
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);
