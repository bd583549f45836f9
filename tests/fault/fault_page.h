// The data shared by the fault injector and its test, in a file that both map.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

// In the private /run of the test.
inline constexpr const char* FAULT_PAGE_PATH = "/run/v9_fault_page";

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
inline constexpr std::size_t FAULT_CALLS = static_cast<std::size_t>(FaultCall::NEW) + 1;

// The addresses of a function, relative to the program's load address. By default those of all functions.
struct CodeRange {
    std::uint64_t from = 0;
    std::uint64_t to = UINT64_MAX;
};

// Makes recv, send and sendmsg transfer a single byte instead of failing.
inline constexpr int SHORT_TRANSFER = 0;

// The call that is to fail.
struct FaultPlan {
    FaultCall call = FaultCall::SOCKET;
    int error = SHORT_TRANSFER;  // or an errno
    CodeRange within = {};       // Only calls from this function count.
    bool all_later = false;      // All later calls fail, too.
    std::uint64_t nth = 0;       // The number of the call, from 1; 0: calls are only counted.
};

enum class FaultThread : std::uint32_t { MAIN, READER, WRITER };

inline constexpr std::uint32_t NO_FAULT_CONNECTION = 0xFFFFFFFF;

inline constexpr std::size_t MAX_FAULT_FRAMES = 32;

// Return addresses within the program, innermost first, relative to its load address.
struct FaultStack {
    std::array<std::uint64_t, MAX_FAULT_FRAMES> frames{};
    std::uint32_t count = 0;
};

// The first call that was made to fail.
struct FaultRecord {
    FaultThread thread = FaultThread::MAIN;
    // The connection of the thread or mutex, counted from 0 in the order of acceptance.
    std::uint32_t connection = NO_FAULT_CONNECTION;
    // The number of the call among those of this kind by this thread, from 1.
    std::uint32_t call_of_thread = 0;
    // Earlier activity of this thread: calls of sendmsg, bytes received by recv.
    std::uint32_t sendmsg_calls = 0;
    std::uint64_t received_bytes = 0;
    // For pthread_cancel and pthread_join: which of a connection's two threads.
    FaultThread target_thread = FaultThread::MAIN;
    FaultStack stack;
};

struct FaultPage {
    FaultPlan plan = {};  // Written before the program starts.
    // The number of calls that match the plan, except for `nth`.
    std::atomic<std::uint64_t> seen{0};
    std::atomic<std::uint32_t> injected{0};
    // Valid once `injected` is not 0.
    FaultRecord first = {};
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);
