// What the system provides to the server, in memory: a listener with waiting clients, sockets, threads that
// take turns (fiber.h), sleep, the clock and random numbers. Link with --wrap for accept4, setsockopt, recv,
// send, sendmsg, close, usleep, pthread_create, pthread_cancel and pthread_join.
//
// The target fails if the server does what it must never do: use or close a socket that is closed, close one
// whose threads are not joined, wait while holding its connection's lock, wait after cancellation, join a
// thread that was not asked to end, or leave a thread running.
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
    // Reads this many more bytes, then stops reading; EVERYTHING: never stops.
    void read_at_most(std::size_t bytes) { room = bytes; }

    // --- the server, by its calls
    const int fd;
    bool accepted = false;
    bool closed_by_server = false;
    std::string sent = {};           // by the client
    std::size_t read_by_server = 0;  // how many of these bytes
    std::string received = {};       // sent by the server
    std::size_t room = EVERYTHING;   // bytes that the server can send before it has to wait
    bool sending_ended = false;
    bool is_reset = false;
};

namespace fake_system {

// Restores the initial state, without clients. Every thread must have ended, and every socket must be closed.
void restart();

// Creates a client, which waits to be accepted. It exists until restart().
FakeClient& connect_client();

// Returns the client that will be accepted next, or null if none is waiting.
FakeClient* waiting_client();

// Returns the client with this server descriptor, or null.
FakeClient* find_client(int fd);

// Lets the threads run until each of them waits for something that has not happened yet.
void run_threads();

// Sets whether a thread that prints stops there until run_threads() is called again, and may be
// cancelled there.
void stop_at_prints(bool stop);

// Makes the creation of the next count threads fail.
void refuse_threads(unsigned count);

}  // namespace fake_system
