// System calls of the server that a unit test watches or makes fail.
//
// An executable that links wrapped_calls.cpp with the linker's --wrap option for every call below sees them
// pass through here. Without orders each does what the system does.
#pragma once

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <vector>

struct SentPieces {
    std::size_t pieces = 0;
    std::size_t bytes = 0;
    int flags = 0;
};

struct SetOption {
    int level = 0;
    int option = 0;
    std::int64_t value = 0;  // as the kernel reads it: the low 32 bits
    socklen_t length = 0;

    bool operator==(const SetOption&) const = default;
};

struct WrappedCalls {
    std::vector<SentPieces> sends;   // every sendmsg
    std::vector<SetOption> options;  // every setsockopt
    std::vector<int> backlogs;       // every listen
    std::vector<useconds_t> sleeps;  // every usleep; none of them takes any time

    // The nth call of its kind (from 1) fails; 0: none does.
    int failing_listen = 0;
    int failing_setsockopt = 0;
    int failing_pthread_create = 0;

    // Results in place of the real ones. A cancel or join that "fails" has been done all the same.
    int cancel_result = 0;
    int join_result = 0;
    // The join really fails: nothing is joined.
    bool refuse_join = false;
    // The lock of this mutex is refused.
    const pthread_mutex_t* failing_lock = nullptr;
    // The unlock of this mutex is done and reported as failed.
    const pthread_mutex_t* failing_unlock = nullptr;

    // Makes what the caller is told from the real result; unset, it is told that.
    std::function<ssize_t(ssize_t)> recv_result;
    std::function<ssize_t(ssize_t)> send_result;
    std::function<ssize_t(ssize_t)> sendmsg_result;

    // How many of its bytes a sendmsg is to take, asked before it is made; unset, it is made as it is.
    std::function<std::size_t()> sendmsg_takes;

    // What somebody else does meanwhile: before a mutex is locked, after a join,
    // before a descriptor is closed, and instead of a sleep.
    std::function<void(const pthread_mutex_t*)> at_lock;
    std::function<void()> at_join;
    std::function<void(int)> at_close;
    std::function<void()> at_sleep;

    int pthread_creates = 0;
    std::vector<std::size_t> malloc_trims;  // what each left at the end of the heap
};

extern WrappedCalls wrapped_calls;
