// The mutex of one connection, as a capability for clang's checker.
#pragma once

#include <pthread.h>

#include "base/thread_roles.h"

class CAPABILITY("mutex") ConnectionMutex {
  public:
    ConnectionMutex() = default;
    ConnectionMutex(const ConnectionMutex&) = delete;
    ConnectionMutex& operator=(const ConnectionMutex&) = delete;
    ~ConnectionMutex() { pthread_mutex_destroy(&handle); }

    // A plain mutex, not recursive: locking it twice is a bug that must not be hidden.
    pthread_mutex_t handle = PTHREAD_MUTEX_INITIALIZER;
};
