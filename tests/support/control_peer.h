// A client of the control socket, with control over every byte it sends. It encodes requests and strictly
// decodes replies with its own code, so the server's code is checked independently.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/support/client_socket.h"
#include "tests/support/time_limits.h"
#include "tests/support/wire_bytes.h"

inline const std::string CONTROL_SOCKET_PATH = "/var/run/v9_rtmp_server.socket";

constexpr std::uint32_t CONTROL_REQUEST = 1;
constexpr std::uint32_t CONTROL_ASYNC = 2;
constexpr std::uint64_t CONTROL_SUCCESS = 0;
constexpr std::uint64_t CONTROL_ERROR = 6;

// An absent argument differs from an empty one.
using ControlArguments = std::vector<std::optional<std::string>>;
using ControlPairs = std::vector<std::pair<std::string, std::string>>;

// Returns one frame.
Bytes control_request(std::uint64_t id, std::string_view command, const ControlArguments& arguments = {},
                      std::uint32_t flags = CONTROL_REQUEST);
// Returns a frame with any body and any version.
Bytes control_frame(std::string_view body, std::uint8_t version = 4);

struct ControlReply {
    std::uint64_t status = 0;
    std::string command;
    std::string message;
    ControlPairs pairs = {};
    std::uint32_t flags = 0;
    std::uint64_t request_id = 0;

    bool operator==(const ControlReply&) const = default;
    // Returns the values of the pairs with this name, in order.
    std::vector<std::string> values(std::string_view name) const;
};

// Returns one frame as a server sends it, in reply to a client's first request.
Bytes control_reply(const ControlReply& reply);

class ControlPeer : public ClientSocket {
  public:
    // Connects. send_buffer_bytes 0 keeps the system's default.
    explicit ControlPeer(const std::string& path = CONTROL_SOCKET_PATH, int send_buffer_bytes = 0);

    // Sends without waiting and returns how many bytes the socket took. Throws if the server has closed
    // the connection.
    [[nodiscard]] std::size_t send_some(std::string_view bytes) const;
    // Returns the next reply. It must be complete, with nothing after its last field and no arguments.
    ControlReply read_reply(Milliseconds wait = DEFAULT_WAIT);
    // Sends a request with the next id and waits for a reply, which must carry that id.
    ControlReply ask(std::string_view command, const ControlArguments& arguments = {},
                     Milliseconds wait = DEFAULT_WAIT);
    // Whether there are unread bytes from the server.
    [[nodiscard]] bool has_unread_bytes() const;
    // Requires that the server closes the connection without sending anything first.
    void expect_closed(Milliseconds wait = DEFAULT_WAIT);

  private:
    // Returns the length of the body that follows.
    std::size_t read_header(TimePoint deadline);

    std::uint64_t last_id = 0;
};
