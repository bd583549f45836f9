#include "tests/support/wrapped_calls.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

WrappedCalls wrapped_calls;

namespace {

// Returns the pieces of a message, up to this many bytes in total.
std::vector<iovec> first_bytes(const msghdr& message, std::size_t bytes) {
    std::vector<iovec> pieces(message.msg_iov, message.msg_iov + message.msg_iovlen);
    for (iovec& piece : pieces) {
        piece.iov_len = std::min(piece.iov_len, bytes);
        bytes -= piece.iov_len;
    }
    return pieces;
}

}  // namespace

extern "C" {

ssize_t __real_recv(int fd, void* buffer, std::size_t c, int flags);
ssize_t __real_send(int fd, const void* buffer, std::size_t c, int flags);
ssize_t __real_sendmsg(int fd, const msghdr* message, int flags);
int __real_setsockopt(int fd, int level, int option, const void* value, socklen_t length);
int __real_listen(int fd, int backlog);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                          void* argument);
int __real_pthread_cancel(pthread_t thread);
int __real_pthread_join(pthread_t thread, void** result);
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __real_close(int fd);

ssize_t __wrap_recv(int fd, void* buffer, std::size_t c, int flags) {
    const ssize_t result = __real_recv(fd, buffer, c, flags);
    return wrapped_calls.recv_result ? wrapped_calls.recv_result(result) : result;
}

ssize_t __wrap_send(int fd, const void* buffer, std::size_t c, int flags) {
    const ssize_t result = __real_send(fd, buffer, c, flags);
    return wrapped_calls.send_result ? wrapped_calls.send_result(result) : result;
}

ssize_t __wrap_sendmsg(int fd, const msghdr* message, int flags) {
    SentPieces sent{message->msg_iovlen, 0, flags};
    for (std::size_t i = 0; i < message->msg_iovlen; ++i) {
        sent.bytes += message->msg_iov[i].iov_len;
    }
    wrapped_calls.sends.push_back(sent);
    msghdr taken = *message;
    std::vector<iovec> pieces;
    if (wrapped_calls.sendmsg_takes) {
        pieces = first_bytes(*message, wrapped_calls.sendmsg_takes());
        taken.msg_iov = pieces.data();
    }
    const ssize_t result = __real_sendmsg(fd, &taken, flags);
    return wrapped_calls.sendmsg_result ? wrapped_calls.sendmsg_result(result) : result;
}

int __wrap_setsockopt(int fd, int level, int option, const void* value, socklen_t length) {
    std::int32_t low = 0;
    std::memcpy(&low, value, sizeof low);
    wrapped_calls.options.push_back({level, option, low, length});
    return __real_setsockopt(fd, level, option, value, length);
}

int __wrap_listen(int fd, int backlog) {
    wrapped_calls.backlogs.push_back(backlog);
    if (static_cast<int>(wrapped_calls.backlogs.size()) == wrapped_calls.failing_listen) {
        errno = EADDRINUSE;
        return -1;
    }
    return __real_listen(fd, backlog);
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                          void* argument) {
    if (++wrapped_calls.pthread_creates == wrapped_calls.failing_pthread_create) {
        return EAGAIN;
    }
    return __real_pthread_create(thread, attributes, entry, argument);
}

int __wrap_pthread_cancel(pthread_t thread) {
    const int result = __real_pthread_cancel(thread);
    return wrapped_calls.stop_result != 0 ? wrapped_calls.stop_result : result;
}

int __wrap_pthread_join(pthread_t thread, void** result) {
    const int joined = wrapped_calls.refuse_join ? EDEADLK : __real_pthread_join(thread, result);
    if (wrapped_calls.at_join) {
        wrapped_calls.at_join();
    }
    return wrapped_calls.stop_result != 0 ? wrapped_calls.stop_result : joined;
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    if (wrapped_calls.at_lock) {
        wrapped_calls.at_lock(mutex);
    }
    return mutex == wrapped_calls.failing_lock ? EINVAL : __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    const int result = __real_pthread_mutex_unlock(mutex);
    return mutex == wrapped_calls.failing_unlock ? EPERM : result;
}

int __wrap_close(int fd) {
    if (wrapped_calls.at_close) {
        wrapped_calls.at_close(fd);
    }
    return __real_close(fd);
}

int __wrap_malloc_trim(std::size_t pad) {
    wrapped_calls.malloc_trims.push_back(pad);
    return 0;
}

int __wrap_usleep(useconds_t duration_us) {
    wrapped_calls.sleeps.push_back(duration_us);
    if (wrapped_calls.at_sleep) {
        wrapped_calls.at_sleep();
    }
    return 0;
}

}  // extern "C"
