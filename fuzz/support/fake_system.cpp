#include "fuzz/support/fake_system.h"

#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "base/check.h"
#include "core/connection.h"
#include "fuzz/support/fiber.h"
#include "fuzz/support/quiet_diag.h"
#include "rtmp/session_threads.h"
#include "tests/support/fake_clock.h"

extern "C" int __real_setsockopt(int fd, int level, int option, const void* value, socklen_t length);
extern "C" int __real_close(int fd);
extern "C" int __real_usleep(useconds_t us);
extern "C" int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                     void* (*entry)(void*), void* argument);
extern "C" int __real_pthread_cancel(pthread_t thread);
extern "C" int __real_pthread_join(pthread_t thread, void** result);

namespace {

constexpr pthread_t FIRST_THREAD = 0xF1BE0000;
constexpr int MAX_TURNS = 100000;
constexpr unsigned char SERVER_RANDOM = 0x5A;

enum class WaitingFor { A_TURN, INPUT, ROOM, TIME };

struct FakeThread {
    FakeThread(Fiber::Entry entry, void* argument) : fiber(entry, argument) {}

    [[nodiscard]] RTMPConnection& connection() const {
        return *static_cast<RTMPConnection*>(fiber.entry_argument());
    }

    Fiber fiber;
    WaitingFor waiting_for = WaitingFor::A_TURN;
    unsigned round = 0;                  // for A_TURN: the round in which it last ran
    const FakeClient* client = nullptr;  // for INPUT and ROOM
    std::uint64_t wake_us = 0;           // for TIME
    bool joined = false;
};

struct System {
    std::vector<std::unique_ptr<FakeClient>> clients;
    std::vector<std::unique_ptr<FakeThread>> threads;  // all since restart(), at handle - FIRST_THREAD
    std::vector<FakeThread*> unjoined_threads;
    FakeThread* running_thread = nullptr;  // while a fiber runs: its thread
    unsigned round = 0;                    // calls of run_threads()
    unsigned threads_refused = 0;
    int random_numbers = 0;
};

System the_system;

void check_lock_is_free(RTMPConnection& conn) {
    CHECK(pthread_mutex_trylock(&conn.mutex.handle) == 0);
    CHECK(pthread_mutex_unlock(&conn.mutex.handle) == 0);
}

void wait_for(WaitingFor what, const FakeClient* client, std::uint64_t wake_us) {
    CHECK(Fiber::running() != nullptr);  // The main thread never waits for a client.
    FakeThread* const thread = the_system.running_thread;
    check_lock_is_free(thread->connection());
    thread->waiting_for = what;
    thread->round = the_system.round;
    thread->client = client;
    thread->wake_us = wake_us;
    thread->fiber.wait();
}

void wait_at_print() {
    if (Fiber::running() != nullptr) {
        wait_for(WaitingFor::A_TURN, nullptr, 0);
    }
}

bool can_go_on(const FakeThread& thread) {
    switch (thread.waiting_for) {
        case WaitingFor::A_TURN:
            return thread.round != the_system.round;
        case WaitingFor::INPUT:
            return thread.client->unread_bytes() != 0 || thread.client->sending_ended ||
                   thread.client->is_reset;
        case WaitingFor::ROOM:
            return thread.client->room != 0 || thread.client->is_reset;
        case WaitingFor::TIME:
            return thread.wake_us <= fake_clock_us;
    }
    return false;
}

bool is_ours(pthread_t thread) {
    return thread >= FIRST_THREAD && thread - FIRST_THREAD < the_system.threads.size();
}

FakeThread& thread_of(pthread_t thread) {
    return *the_system.threads[thread - FIRST_THREAD];
}

FakeClient& open_client(int fd) {
    FakeClient* const client = fake_system::find_client(fd);
    CHECK(client != nullptr);
    CHECK(client->accepted && !client->closed_by_server);
    return *client;
}

// Waits for room for at least one byte. False if the client is gone.
bool wait_for_room(FakeClient& client) {
    while (client.room == 0 && !client.is_reset) {
        wait_for(WaitingFor::ROOM, &client, 0);
    }
    if (client.is_reset) {
        errno = EPIPE;
        return false;
    }
    return true;
}

std::size_t put(FakeClient& client, const void* bytes, std::size_t c) {
    const std::size_t taken = std::min(c, client.room);
    client.received.append(static_cast<const char*>(bytes), taken);
    if (client.room != FakeClient::EVERYTHING) {
        client.room -= taken;
    }
    return taken;
}

}  // namespace

void FakeClient::send_to_server(std::string_view bytes) {
    if (!sending_ended && !is_reset && !closed_by_server) {
        sent += bytes;
    }
}

void fake_system::restart() {
    CHECK(the_system.unjoined_threads.empty());
    for (const auto& client : the_system.clients) {
        CHECK(!client->accepted || client->closed_by_server);
    }
    the_system = System();
    stop_at_prints(false);
}

FakeClient& fake_system::connect_client() {
    const int fd = FAKE_LISTENER_FD + 1 + static_cast<int>(the_system.clients.size());
    the_system.clients.push_back(std::make_unique<FakeClient>(fd));
    return *the_system.clients.back();
}

FakeClient* fake_system::waiting_client() {
    const auto waiting = std::find_if(the_system.clients.begin(), the_system.clients.end(),
                                      [](const auto& client) { return !client->accepted; });
    return waiting == the_system.clients.end() ? nullptr : waiting->get();
}

FakeClient* fake_system::find_client(int fd) {
    const auto number = static_cast<std::size_t>(fd - FAKE_LISTENER_FD - 1);
    return fd > FAKE_LISTENER_FD && number < the_system.clients.size() ? the_system.clients[number].get()
                                                                       : nullptr;
}

void fake_system::run_threads() {
    int turns = 0;
    ++the_system.round;
    for (bool progress = true; progress;) {
        progress = false;
        for (FakeThread* const thread : the_system.unjoined_threads) {
            if (!thread->fiber.finished() && can_go_on(*thread)) {
                the_system.running_thread = thread;
                thread->fiber.resume();
                progress = true;
                CHECK(++turns < MAX_TURNS);
            }
        }
    }
}

void fake_system::stop_at_prints(bool stop) {
    before_diagnostic = stop ? wait_at_print : nullptr;
}

void fake_system::refuse_threads(unsigned count) {
    the_system.threads_refused = count;
}

// The low byte is always the same, so that a client can answer the handshake without having read it.
extern "C" int rand() noexcept {
    return ++the_system.random_numbers % 0x400000 * 256 + SERVER_RANDOM;
}

extern "C" int __wrap_accept4(int fd, sockaddr* address, socklen_t* length, int /*flags*/) {
    CHECK(fd == FAKE_LISTENER_FD);
    FakeClient* const client = fake_system::waiting_client();
    if (client == nullptr) {
        errno = EAGAIN;
        return -1;
    }
    client->accepted = true;
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(static_cast<std::uint16_t>(client->fd));
    peer.sin_addr.s_addr = htonl(0xC0000207);
    CHECK(*length == sizeof peer);
    std::memcpy(address, &peer, sizeof peer);
    return client->fd;
}

extern "C" int __wrap_setsockopt(int fd, int level, int option, const void* value, socklen_t length) {
    if (fd < FAKE_LISTENER_FD) {
        return __real_setsockopt(fd, level, option, value, length);
    }
    static_cast<void>(open_client(fd));
    return 0;
}

extern "C" ssize_t __wrap_recv(int fd, void* buffer, std::size_t c, int flags) {
    CHECK(c != 0 && flags == 0);
    FakeClient& client = open_client(fd);
    while (client.unread_bytes() == 0 && !client.sending_ended && !client.is_reset) {
        wait_for(WaitingFor::INPUT, &client, 0);
    }
    if (client.is_reset) {
        errno = ECONNRESET;
        return -1;
    }
    const std::size_t taken = std::min(c, client.unread_bytes());
    std::memcpy(buffer, client.sent.data() + client.read_by_server, taken);
    client.read_by_server += taken;
    return static_cast<ssize_t>(taken);
}

extern "C" ssize_t __wrap_send(int fd, const void* buffer, std::size_t c, int flags) {
    CHECK(c != 0 && (flags & MSG_NOSIGNAL) != 0);
    FakeClient& client = open_client(fd);
    if (!wait_for_room(client)) {
        return -1;
    }
    return static_cast<ssize_t>(put(client, buffer, c));
}

extern "C" ssize_t __wrap_sendmsg(int fd, const msghdr* message, int flags) {
    CHECK((flags & MSG_NOSIGNAL) != 0);
    FakeClient& client = open_client(fd);
    if (!wait_for_room(client)) {
        return -1;
    }
    std::size_t sent = 0;
    for (std::size_t i = 0; i < message->msg_iovlen; ++i) {
        const iovec& piece = message->msg_iov[i];
        sent += put(client, piece.iov_base, piece.iov_len);
    }
    CHECK(sent != 0);
    return static_cast<ssize_t>(sent);
}

extern "C" int __wrap_close(int fd) {
    if (fd < FAKE_LISTENER_FD) {
        return __real_close(fd);
    }
    if (fd == FAKE_LISTENER_FD) {
        return 0;
    }
    FakeClient& client = open_client(fd);
    for (const FakeThread* const thread : the_system.unjoined_threads) {
        CHECK(thread->connection().fd != fd);
    }
    client.closed_by_server = true;
    return 0;
}

extern "C" int __wrap_usleep(useconds_t us) {
    if (Fiber::running() == nullptr) {
        return __real_usleep(us);
    }
    wait_for(WaitingFor::TIME, nullptr, fake_clock_us + us);
    return 0;
}

extern "C" int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                     void* (*entry)(void*), void* argument) {
    if (entry != reader_thread && entry != writer_thread) {
        return __real_pthread_create(thread, attributes, entry, argument);
    }
    if (the_system.threads_refused != 0) {
        --the_system.threads_refused;
        return EAGAIN;
    }
    *thread = FIRST_THREAD + the_system.threads.size();
    the_system.threads.push_back(std::make_unique<FakeThread>(entry, argument));
    the_system.unjoined_threads.push_back(the_system.threads.back().get());
    return 0;
}

extern "C" int __wrap_pthread_cancel(pthread_t thread) {
    if (!is_ours(thread)) {
        return __real_pthread_cancel(thread);
    }
    FakeThread& fake = thread_of(thread);
    CHECK(!fake.joined);
    if (!fake.fiber.finished()) {
        the_system.running_thread = &fake;
        fake.fiber.cancel();
    }
    return 0;
}

extern "C" int __wrap_pthread_join(pthread_t thread, void** result) {
    if (!is_ours(thread)) {
        return __real_pthread_join(thread, result);
    }
    FakeThread& fake = thread_of(thread);
    CHECK(!fake.joined && fake.fiber.finished());
    fake.joined = true;
    std::erase(the_system.unjoined_threads, &fake);
    return 0;
}
