// Moves the bytes of HTTP clients on one thread: takes a request's head in, asks for the reply, sends
// it, closes.
//
// 1. Memory is bounded: at most MAX_HTTP_CLIENTS connections, and MAX_HEAD_BYTES of each.
// 2. A connection has one request. Its head has to be complete within HEAD_LIMIT, and its reply taken
//    within REPLY_LIMIT.
// 3. When the table is full, the newcomer takes the place of the connection that has been incomplete the
//    longest. So clients that send slowly, or nothing, keep out no client that sends its request at once.
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
// A closed connection whose client still sends would be reset, and the client would lose the reply.
constexpr std::chrono::seconds LINGER_LIMIT{1};

class HttpLoop {
  public:
    // Returns the whole reply to a head, which ends with an empty line.
    using Answer = std::function<std::string(const std::string& head)>;

    // listener is a listening socket that does not block. The caller keeps it.
    HttpLoop(int listening_socket, Answer answer_function);
    ~HttpLoop();
    HttpLoop(const HttpLoop&) = delete;
    HttpLoop& operator=(const HttpLoop&) = delete;

    // Waits for something to do, for wait at most, and does it.
    void turn(std::chrono::milliseconds wait);

    [[nodiscard]] std::size_t client_count() const { return clients.size(); }

  private:
    using Clock = std::chrono::steady_clock;

    //   [HEAD] --empty line--> [REPLY] --all sent--> [LINGER] --client closes--> gone
    //
    // A failure, or the deadline of the state, ends the connection from everywhere.
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
    // Each of these is false when the connection is to be closed.
    [[nodiscard]] bool advance(Client& client);
    [[nodiscard]] bool read_head(Client& client);
    [[nodiscard]] static bool send_reply(Client& client);
    [[nodiscard]] static bool read_rest(const Client& client);
    void close_late();
    Place end(Place place);

    const int listener;
    const Answer answer;
    std::list<Client> clients;  // the longest connected first
    bool may_accept = true;     // false for one turn when descriptors are short
};
