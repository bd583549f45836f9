// What the tests of the control-socket library share: a directory for sockets, bytes on a plain socket,
// frames made byte by byte without the library, and a server that answers like a small program would.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "comm_socket/include/comm_socket_v4.h"

// A new, empty directory, removed with its contents.
class TemporaryDirectory {
  public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    [[nodiscard]] std::string file(const std::string& name) const { return path + "/" + name; }
    std::string path;
};

using Arguments = std::vector<std::optional<std::string>>;
using Pairs = std::vector<std::pair<std::string, std::string>>;

std::string be32(std::uint64_t value);
std::string be64(std::uint64_t value);
std::string counted(const std::string& bytes);  // length and bytes
// Returns a frame around this body. Its header is valid in version 4.
std::string frame_around(const std::string& body, unsigned version = 4);
std::string frame_body(std::uint64_t flags, std::uint64_t id, std::uint64_t status,
                       const std::string& command, const std::string& message, const Arguments& arguments,
                       const Pairs& pairs);
std::string request_frame(std::uint64_t id, const std::string& command, const Arguments& arguments = {});
std::string reply_frame(std::uint64_t id, const std::string& command, const std::string& message,
                        const Pairs& pairs = {}, std::uint64_t status = 0);

// One end of a Unix stream socket, which knows nothing of frames.
class RawPeer {
  public:
    RawPeer() = default;
    explicit RawPeer(int connected_fd) : fd(connected_fd) {}
    explicit RawPeer(const std::string& path);  // connects; fd is -1 if that fails
    ~RawPeer() { close_now(); }
    RawPeer(RawPeer&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    RawPeer& operator=(RawPeer&& other) noexcept;

    void send_all(const std::string& bytes) const;
    // Sends without blocking and returns how many bytes the socket took.
    [[nodiscard]] std::size_t send_some(std::string_view bytes) const;
    // Reads until this many bytes have arrived, the stream has ended, or nothing has arrived for 5 s.
    [[nodiscard]] std::string read_bytes(std::size_t count) const;
    [[nodiscard]] std::string read_available() const;
    // Whether the connection has ended: a read gives the end or a reset. Waits up to wait_ms for it.
    [[nodiscard]] bool is_closed(int wait_ms = 0) const;
    // Whether the other side has closed, even if there is still something to read.
    [[nodiscard]] bool is_hung_up() const;
    // How much the other side has sent and this one has not read.
    [[nodiscard]] std::size_t available_bytes() const;
    // Whether the other side has not yet read everything that this one has sent.
    [[nodiscard]] bool has_unread_bytes() const;
    void shut_sending() const;
    void close_now();

    int fd = -1;
};

// A server of the library at dir/"socket", driven by hand.
class DrivenServer {
  public:
    explicit DrivenServer(const std::string& socket_path);
    ~DrivenServer() { comm_socket_v4_destroy(handle); }
    DrivenServer(const DrivenServer&) = delete;
    DrivenServer& operator=(const DrivenServer&) = delete;

    // Calls idle, and fails the test if that fails.
    void idle() const;
    // Returns the next request, or null.
    [[nodiscard]] comm_socket_v4_packet* take(comm_socket_v4_client** client = nullptr) const;
    // Answers all requests of one round with their own command and this message, and returns their number.
    int answer_all(const std::string& message = "yes") const;

    std::string path;
    comm_socket_v4* handle;
};

// Bytes that packets share, and how often they were given back.
struct SharedBytes {
    template <std::size_t N>
    explicit SharedBytes(const char (&literal)[N]) : text(literal, N - 1) {}
    explicit SharedBytes(std::string bytes) : text(std::move(bytes)) {}
    SharedBytes(const SharedBytes&) = delete;
    SharedBytes& operator=(const SharedBytes&) = delete;
    comm_socket_v4_shared_bytes lend() {
        return {text.data(), text.size(), this,
                [](void* owner) { ++static_cast<SharedBytes*>(owner)->released; }};
    }

    std::string text;
    int released = 0;
};

// Returns a complete response to id with this message.
comm_socket_v4_packet* make_reply(std::uint64_t id, const std::string& command, const std::string& message);

// Runs a server loop of its own on a thread: answers "hello" with "How are you?", "echo" with a pair per
// argument (absent: the name "absent"), and everything else with status 6 and "Unknown command".
class EchoServer {
  public:
    explicit EchoServer(const std::string& socket_path);
    ~EchoServer();
    EchoServer(const EchoServer&) = delete;
    EchoServer& operator=(const EchoServer&) = delete;

  private:
    void run(std::stop_token stop);
    DrivenServer server;
    std::jthread thread;
};

// Owners of the client's objects.
struct Releaser {
    void operator()(comm_socket_v4_packet* packet) const { comm_socket_v4_packet_release(packet); }
    void operator()(comm_socket_v4_connection* connection) const { comm_socket_v4_disconnect(connection); }
};
using Packet = std::unique_ptr<comm_socket_v4_packet, Releaser>;
using Connection = std::unique_ptr<comm_socket_v4_connection, Releaser>;

// Returns a request that is ready to be sent.
Packet make_request(const std::string& command, const Arguments& arguments = {});

// From now on this process may do with files only what their modes permit, even as root, and even as the root
// of a user namespace without other users. True on success.
[[nodiscard]] bool obey_file_modes();

// Returns the number of open descriptors of this process.
int count_descriptors();
// Calls step every millisecond or so until it returns true; false after 10 s of real time.
bool eventually(const std::function<bool()>& step);
