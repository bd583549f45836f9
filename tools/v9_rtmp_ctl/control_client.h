// One connection to the server's control socket. Sends requests, reads replies, and gives advice with
// every failure.
//
// Connects at the first request, and again after a failure or if the server has closed the connection since
// the last reply, as a restart does. Used by one thread.
#pragma once

#include <comm_socket_v4.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/failure.h"

struct Request {
    std::string command;
    std::vector<std::string> arguments;
};

// Strings are as the server sent them.
struct Reply {
    std::uint64_t status = 0;
    std::string command;
    std::string message;
    std::vector<std::pair<std::string, std::string>> pairs;  // in the order sent; names may repeat
};

// Returns the time limit for a whole reply whose bytes keep arriving, with pauses of at most silence_us: 60 s
// or twice silence_us, whichever is longer. A slow reply is thus distinguished from silence.
[[nodiscard]] std::uint64_t longest_reply_us(std::uint64_t silence_us);

class ControlClient {
  public:
    // A call fails if no byte of its reply arrives for silence_us, or after longest_reply_us. Connecting and
    // sending fail after silence_us.
    ControlClient(std::string path, std::uint64_t silence);
    ~ControlClient();
    ControlClient(const ControlClient&) = delete;
    ControlClient& operator=(const ControlClient&) = delete;

    // Connects now, so that a timed call covers only the request and the reply.
    [[nodiscard]] std::optional<Failure> connect();

    // Sends and waits for the reply, which may carry any status.
    [[nodiscard]] std::optional<Failure> call(const Request& request, Reply& reply);

    // Sends all requests in one write and waits for their replies, one for each request and in the same
    // order. After a failure some requests may have been carried out.
    [[nodiscard]] std::optional<Failure> call_all(const std::vector<Request>& requests,
                                                  std::vector<Reply>& replies);

    // Sends a request that gets no reply.
    [[nodiscard]] std::optional<Failure> send_async(const Request& request);

    // For a caller that polls: start() sends all requests in one write, and poll_reply() takes the next reply
    // without waiting; found is false if it has not arrived yet. A failure ends the connection and the wait.
    [[nodiscard]] std::optional<Failure> start(const std::vector<Request>& requests);
    [[nodiscard]] std::optional<Failure> poll_reply(Reply& reply, bool& found);

    // The descriptor to poll for input between start() and the last reply; -1 without a connection.
    [[nodiscard]] int fd() const { return comm_socket_v4_connection_get_fd(connection); }

    // Closes the connection. The next request opens a new one.
    void disconnect();

  private:
    [[nodiscard]] std::optional<Failure> fail(comm_socket_v4_error error);
    [[nodiscard]] std::optional<Failure> fail_to_wait(comm_socket_v4_error error, std::uint64_t began_us);
    [[nodiscard]] std::optional<Failure> send(const std::vector<Request>& requests, bool async);

    const std::string socket_path;
    const std::uint64_t silence_us;
    const std::uint64_t total_us;
    comm_socket_v4_connection* connection = nullptr;
    std::deque<std::uint64_t> awaited_ids;
};

// Returns the monotonic clock in microseconds.
[[nodiscard]] std::uint64_t clock_us();

// Returns the request for the connections of one mode, or of all modes if mode is empty.
[[nodiscard]] Request list_request(const std::string& mode);

// Reads the reply to list_request. Names longer than longest_name_bytes are cut. After a failure, listing
// is unspecified.
[[nodiscard]] std::optional<Failure> read_listing(const Reply& reply, Listing& listing,
                                                  std::size_t longest_name_bytes = SIZE_MAX);

// Requests a listing and reads it.
[[nodiscard]] std::optional<Failure> take_listing(ControlClient& client, const std::string& mode,
                                                  Listing& listing,
                                                  std::size_t longest_name_bytes = SIZE_MAX);

// Takes two listings a second apart and returns the second with rates.
[[nodiscard]] std::optional<Failure> take_listing_with_rates(ControlClient& client, const std::string& mode,
                                                             Listing& listing);
