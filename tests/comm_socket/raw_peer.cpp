#include "tests/comm_socket/raw_peer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace {

constexpr int READ_WAIT_MS = 5000;
constexpr auto EVENTUALLY = std::chrono::seconds(10);

}  // namespace

TemporaryDirectory::TemporaryDirectory() {
    char name[] = "/tmp/comm_socket_test.XXXXXX";
    const char* made = mkdtemp(name);
    EXPECT_NE(made, nullptr);
    path = name;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

std::string be32(std::uint64_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift);
    }
    return bytes;
}

std::string be64(std::uint64_t value) {
    return be32(value >> 32) + be32(value);
}

std::string counted(const std::string& bytes) {
    return be32(bytes.size()) + bytes;
}

std::string frame_around(const std::string& body, unsigned version) {
    std::string frame = "CS";
    frame += static_cast<char>(version);
    frame += '\0';
    return frame + counted(body);
}

std::string frame_body(std::uint64_t flags, std::uint64_t id, std::uint64_t status,
                       const std::string& command, const std::string& message, const Arguments& arguments,
                       const Pairs& pairs) {
    std::string body = be32(flags) + be64(id) + be64(status) + counted(command) + counted(message);
    body += be32(arguments.size());
    for (const auto& argument : arguments) {
        body += argument ? counted(*argument) : be32(0xFFFFFFFF);
    }
    body += be32(pairs.size());
    for (const auto& [name, value] : pairs) {
        body += counted(name) + counted(value);
    }
    return body;
}

std::string request_frame(std::uint64_t id, const std::string& command, const Arguments& arguments) {
    return frame_around(frame_body(COMM_SOCKET_V4_REQUEST, id, 0, command, "", arguments, {}));
}

std::string reply_frame(std::uint64_t id, const std::string& command, const std::string& message,
                        const Pairs& pairs, std::uint64_t status) {
    return frame_around(frame_body(0, id, status, command, message, {}, pairs));
}

RawPeer::RawPeer(const std::string& path) : fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close_now();
    }
}

RawPeer& RawPeer::operator=(RawPeer&& other) noexcept {
    close_now();
    fd = std::exchange(other.fd, -1);
    return *this;
}

void RawPeer::close_now() {
    if (fd >= 0) {
        close(fd);
    }
    fd = -1;
}

void RawPeer::send_all(const std::string& bytes) const {
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        ASSERT_GT(n, 0) << strerror(errno);
        sent += static_cast<std::size_t>(n);
    }
}

std::size_t RawPeer::send_some(std::string_view bytes) const {
    const ssize_t n = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return n > 0 ? static_cast<std::size_t>(n) : 0;
}

std::string RawPeer::read_bytes(std::size_t count) const {
    std::string bytes(count, '\0');
    std::size_t have = 0;
    pollfd entry = {fd, POLLIN, 0};
    while (have < count && poll(&entry, 1, READ_WAIT_MS) > 0) {
        const ssize_t n = recv(fd, bytes.data() + have, count - have, 0);
        if (n <= 0) {
            break;
        }
        have += static_cast<std::size_t>(n);
    }
    bytes.resize(have);
    return bytes;
}

std::string RawPeer::read_available() const {
    std::string bytes;
    char chunk[65536];
    ssize_t n = 0;
    while ((n = recv(fd, chunk, sizeof chunk, MSG_DONTWAIT)) > 0) {
        bytes.append(chunk, static_cast<std::size_t>(n));
    }
    return bytes;
}

bool RawPeer::is_closed(int wait_ms) const {
    pollfd entry = {fd, POLLIN, 0};
    if (poll(&entry, 1, wait_ms) <= 0) {
        return false;
    }
    char byte = 0;
    const ssize_t n = recv(fd, &byte, 1, MSG_DONTWAIT);
    return n == 0 || (n < 0 && errno == ECONNRESET);
}

bool RawPeer::is_hung_up() const {
    pollfd entry = {fd, 0, 0};
    return poll(&entry, 1, 0) > 0 && (entry.revents & POLLHUP) != 0;
}

std::size_t RawPeer::available_bytes() const {
    int bytes = 0;
    return ioctl(fd, FIONREAD, &bytes) == 0 ? static_cast<std::size_t>(bytes) : 0;
}

bool RawPeer::has_unread_bytes() const {
    int bytes = 0;
    return ioctl(fd, SIOCOUTQ, &bytes) == 0 && bytes > 0;
}

void RawPeer::shut_sending() const {
    shutdown(fd, SHUT_WR);
}

DrivenServer::DrivenServer(const std::string& socket_path)
    : path(socket_path), handle(comm_socket_v4_create()) {
    EXPECT_NE(handle, nullptr);
    EXPECT_EQ(comm_socket_v4_create_server(handle, path.c_str()), 0) << strerror(errno);
}

void DrivenServer::idle() const {
    ASSERT_EQ(comm_socket_v4_idle(handle), 0) << strerror(errno);
}

comm_socket_v4_packet* DrivenServer::take(comm_socket_v4_client** client) const {
    return comm_socket_v4_server_get_packet(handle, client);
}

int DrivenServer::answer_all(const std::string& message) const {
    int count = 0;
    comm_socket_v4_client* client = nullptr;
    while (comm_socket_v4_packet* request = take(&client)) {
        comm_socket_v4_packet* reply =
            make_reply(request->request_id, comm_socket_v4_packet_get_command(request), message);
        EXPECT_NE(comm_socket_v4_packet_send_to_client(client, reply), 0);
        comm_socket_v4_packet_release(reply);
        comm_socket_v4_packet_release(request);
        ++count;
    }
    return count;
}

comm_socket_v4_packet* make_reply(std::uint64_t id, const std::string& command, const std::string& message) {
    comm_socket_v4_packet* reply = comm_socket_v4_packet_create();
    comm_socket_v4_packet_make_response(reply);
    reply->request_id = id;
    EXPECT_EQ(comm_socket_v4_packet_begin_writing(reply, 0, command.c_str(), message.c_str()), 0);
    EXPECT_EQ(comm_socket_v4_packet_write_end(reply), 0);
    return reply;
}

EchoServer::EchoServer(const std::string& socket_path)
    : server(socket_path), thread([this](std::stop_token stop) { run(std::move(stop)); }) {}

EchoServer::~EchoServer() {
    thread.request_stop();
    thread.join();
}

namespace {

void answer_like_a_program(comm_socket_v4_client* client, const comm_socket_v4_packet* request) {
    const std::string command = comm_socket_v4_packet_get_command(request);
    comm_socket_v4_packet* reply = comm_socket_v4_packet_create();
    comm_socket_v4_packet_make_response(reply);
    reply->request_id = request->request_id;
    const bool known = command == "hello" || command == "echo";
    reply->status = known ? COMM_SOCKET_V4_STATUS_SUCCESS : COMM_SOCKET_V4_STATUS_ERROR;
    comm_socket_v4_packet_begin_writing(reply, 0, command.c_str(),
                                        known ? "How are you?" : "Unknown command");
    for (std::size_t i = 0; command == "echo" && i < comm_socket_v4_packet_get_argv_count(request); ++i) {
        const char* argument = comm_socket_v4_packet_get_argv(request, i);
        comm_socket_v4_packet_write_nv_pair_bytes(reply, argument != nullptr ? "argument" : "absent",
                                                  argument != nullptr ? 8 : 6, argument,
                                                  comm_socket_v4_packet_get_argv_length(request, i));
    }
    comm_socket_v4_packet_write_end(reply);
    // A client that has left meanwhile gets nothing; the others check what they get.
    (void)comm_socket_v4_packet_send_to_client(client, reply);
    comm_socket_v4_packet_release(reply);
}

}  // namespace

void EchoServer::run(std::stop_token stop) {
    while (!stop.stop_requested()) {
        server.idle();
        comm_socket_v4_free_client(comm_socket_v4_get_disconnected_client(server.handle));
        comm_socket_v4_client* client = nullptr;
        while (comm_socket_v4_packet* request = server.take(&client)) {
            if ((request->flags & COMM_SOCKET_V4_ASYNC) == 0) {
                answer_like_a_program(client, request);
            }
            comm_socket_v4_packet_release(request);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

Packet make_request(const std::string& command, const Arguments& arguments) {
    Packet request(comm_socket_v4_packet_create());
    EXPECT_EQ(comm_socket_v4_packet_begin_writing(request.get(), 0, command.c_str(), ""), 0);
    for (const auto& argument : arguments) {
        EXPECT_EQ(comm_socket_v4_packet_write_argv(request.get(), argument ? argument->c_str() : nullptr), 0);
    }
    EXPECT_EQ(comm_socket_v4_packet_write_end(request.get()), 0);
    return request;
}

bool obey_file_modes() {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    return syscall(SYS_capset, &header, none) == 0;
}

int count_descriptors() {
    int count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        ++count;
    }
    return count;
}

bool eventually(const std::function<bool()>& step) {
    const auto deadline = std::chrono::steady_clock::now() + EVENTUALLY;
    while (!step()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}
