// The mutex of one connection, as a capability that clang can check.
#pragma once

#include <pthread.h>

#include "base/thread_roles.h"

class CAPABILITY("mutex") ConnectionMutex {
  public:
    ConnectionMutex() = default;
    ConnectionMutex(const ConnectionMutex&) = delete;
    ConnectionMutex& operator=(const ConnectionMutex&) = delete;
    ~ConnectionMutex() { pthread_mutex_destroy(&handle); }

    // A plain mutex, not recursive: whoever holds it and asks again has a mistake that must show.
    pthread_mutex_t handle = PTHREAD_MUTEX_INITIALIZER;
};
