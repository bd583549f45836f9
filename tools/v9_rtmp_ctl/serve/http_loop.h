// Serves HTTP clients on one thread: reads a request's head, gets the reply from a function, sends it and
// closes the connection.
//
// 1. Memory is bounded: at most MAX_HTTP_CLIENTS connections, each with one head of about MAX_HEAD_BYTES or
//    one reply.
// 2. A connection carries one request. Its head must be complete within HEAD_LIMIT, and its reply taken
//    within REPLY_LIMIT.
// 3. When the table is full, a new connection replaces the one whose request has been incomplete the longest,
//    or the oldest connection if no request is incomplete. So clients that send slowly or not at all do not
//    keep out clients that send their request at once.
// 4. Bodies are not read: the request ends at its first empty line.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <string>

constexpr std::size_t MAX_HTTP_CLIENTS = 256;
constexpr std::size_t MAX_HEAD_BYTES = 16384;
constexpr std::chrono::seconds HEAD_LIMIT{5};
constexpr std::chrono::seconds REPLY_LIMIT{10};
// Closing a connection while its client still sends would reset it, and the client would lose the reply.
constexpr std::chrono::seconds LINGER_LIMIT{1};

class HttpLoop {
  public:
    // Returns the whole reply to a head, which ends with an empty line.
    using Answer = std::function<std::string(const std::string& head)>;

    // listening_socket must be non-blocking. The caller keeps ownership.
    HttpLoop(int listening_socket, Answer answer_function);
    ~HttpLoop();
    HttpLoop(const HttpLoop&) = delete;
    HttpLoop& operator=(const HttpLoop&) = delete;

    // Waits for events for no longer than wait, and handles them.
    void turn(std::chrono::milliseconds wait);

    [[nodiscard]] std::size_t client_count() const { return clients.size(); }

  private:
    using Clock = std::chrono::steady_clock;

    //   [HEAD] --empty line--> [REPLY] --all sent--> [LINGER] --client closes--> gone
    //
    // In every state, a failure or the state's deadline ends the connection.
    enum class State { HEAD, REPLY, LINGER };
    struct Client {
        int fd = -1;
        State state = State::HEAD;
        std::string head;
        std::string reply;
        std::size_t sent_bytes = 0;
        Clock::time_point deadline;
    };
    using Place = std::list<Client>::iterator;

    void accept_all();
    void make_room();
    // Each of these returns false if the connection is to be closed.
    [[nodiscard]] bool advance(Client& client);
    [[nodiscard]] bool read_head(Client& client);
    [[nodiscard]] static bool send_reply(Client& client);
    [[nodiscard]] static bool read_rest(const Client& client);
    void close_late();
    Place end(Place place);

    const int listener;
    const Answer answer;
    std::list<Client> clients;  // oldest first
    bool may_accept = true;     // false for one turn if out of descriptors
};
