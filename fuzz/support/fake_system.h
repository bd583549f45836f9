// What the system gives the server, in memory: a listener with waiting clients, sockets, threads that take
// turns (fiber.h), sleep, the clock and random numbers. Link with --wrap for accept4, setsockopt, recv, send,
// sendmsg, close, usleep, pthread_create, pthread_cancel and pthread_join.
//
// What the server must never do fails here: use or close a socket that is closed, close one under a running
// thread, wait while holding its connection's lock, wait after cancellation, join a thread that was not
// asked to end, or leave a thread running.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// The server's listening socket.
constexpr int FAKE_LISTENER_FD = 1000000;

// One client's socket, both directions.
class FakeClient {
  public:
    static constexpr std::size_t EVERYTHING = static_cast<std::size_t>(-1);

    explicit FakeClient(int server_fd) : fd(server_fd) {}

    [[nodiscard]] std::size_t unread_bytes() const { return sent.size() - read_by_server; }

    // --- the client
    void send_to_server(std::string_view bytes);
    void end_sending() { sending_ended = true; }
    void reset() { is_reset = true; }
    // Reads so many bytes more before it stops reading; EVERYTHING: never stops.
    void read_at_most(std::size_t bytes) { room = bytes; }

    // --- the server, by its calls
    const int fd;
    bool accepted = false;
    bool closed_by_server = false;
    std::string sent = {};           // by the client
    std::size_t read_by_server = 0;  // bytes of it
    std::string received = {};       // sent by the server
    std::size_t room = EVERYTHING;   // bytes that the server can send before it has to wait
    bool sending_ended = false;
    bool is_reset = false;
};

namespace fake_system {

// As after a start: no clients. Every thread must have ended, every socket must be closed.
void restart();

// A new client, which waits to be accepted. Stays until restart().
FakeClient& connect_client();

// The client that will be accepted next; null if none waits.
FakeClient* waiting_client();

// By the server's descriptor; null: none.
FakeClient* find_client(int fd);

// Lets every thread run until all wait for something that is not there yet.
void run_threads();

// Whether a thread that prints stops there until run_threads() is called again, and may be
// cancelled there.
void stop_at_prints(bool stop);

// The next count threads cannot be created.
void refuse_threads(unsigned count);

}  // namespace fake_system
