// System calls of the server that a unit test records or makes fail.
//
// Link wrapped_calls.cpp with the linker's --wrap option for every call below, and they go through these
// functions. By default each does what the system does.
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
    std::int64_t value = 0;  // low 32 bits, as the kernel reads it
    socklen_t length = 0;

    bool operator==(const SetOption&) const = default;
};

struct WrappedCalls {
    std::vector<SentPieces> sends;   // every sendmsg
    std::vector<SetOption> options;  // every setsockopt
    std::vector<int> backlogs;       // every listen
    std::vector<useconds_t> sleeps;  // every usleep; none actually sleeps

    // The nth call of its kind (from 1) fails; 0: none does.
    int failing_listen = 0;
    int failing_pthread_create = 0;

    // The result reported by a cancel or join that was nevertheless carried out.
    int stop_result = 0;
    // The join really fails: nothing is joined.
    bool refuse_join = false;
    // Locking this mutex is refused.
    const pthread_mutex_t* failing_lock = nullptr;
    // Unlocking this mutex succeeds but is reported as failed.
    const pthread_mutex_t* failing_unlock = nullptr;

    // Computes the returned result from the real one; unset: the real one is returned.
    std::function<ssize_t(ssize_t)> recv_result;
    std::function<ssize_t(ssize_t)> send_result;
    std::function<ssize_t(ssize_t)> sendmsg_result;

    // Called before a sendmsg; returns how many of its bytes to send. Unset: all.
    std::function<std::size_t()> sendmsg_takes;

    // Actions of another thread or process: before a mutex is locked, after a join, before a descriptor is
    // closed, and instead of a sleep.
    std::function<void(const pthread_mutex_t*)> at_lock;
    std::function<void()> at_join;
    std::function<void(int)> at_close;
    std::function<void()> at_sleep;

    int pthread_creates = 0;
    std::vector<std::size_t> malloc_trims;  // the pad argument of each call
};

extern WrappedCalls wrapped_calls;
