// Tests a client whose server is broken or hostile: the bytes are the server's whole answer to request 1, the
// real client reads them from a socket, and every reply that it accepts must be readable to the end.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "comm_socket/include/comm_socket_v4.h"

namespace {

constexpr std::size_t SENT_AT_ONCE_BYTES = 65536;  // fits the socket, so that no second thread is needed
constexpr std::uint64_t TIMEOUT_US = 1000000;

void require(bool holds) {
    if (!holds) {
        abort();
    }
}

// Each process has its own socket file, because clients take a path.
struct Listener {
    Listener() {
        path = "/tmp/control_reply_fuzz." + std::to_string(getpid());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.c_str(), path.size());
        unlink(path.c_str());
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        require(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                listen(fd, 1) == 0);
    }
    ~Listener() {
        close(fd);
        unlink(path.c_str());
    }
    std::string path;
    int fd = -1;
};

void read_all_of(const comm_socket_v4_packet* reply) {
    std::size_t bytes = strlen(comm_socket_v4_packet_get_command(reply));
    require(bytes <= comm_socket_v4_packet_get_command_length(reply));
    bytes = strlen(comm_socket_v4_packet_get_message(reply));
    require(bytes <= comm_socket_v4_packet_get_message_length(reply));
    for (std::size_t i = 0; i < comm_socket_v4_packet_get_argv_count(reply); ++i) {
        const char* argument = comm_socket_v4_packet_get_argv(reply, i);
        require(argument == nullptr || strlen(argument) <= comm_socket_v4_packet_get_argv_length(reply, i));
    }
    for (std::size_t i = 0; i < comm_socket_v4_packet_get_pair_count(reply); ++i) {
        require(strlen(comm_socket_v4_packet_get_pair_name(reply, i)) <=
                comm_socket_v4_packet_get_pair_name_length(reply, i));
        require(strlen(comm_socket_v4_packet_get_pair_value(reply, i)) <=
                comm_socket_v4_packet_get_pair_value_length(reply, i));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Listener listener;
    comm_socket_v4_error error = COMM_SOCKET_V4_SYSTEM;
    comm_socket_v4_connection* connection = comm_socket_v4_connect(listener.path.c_str(), TIMEOUT_US, &error);
    require(connection != nullptr);
    const int server = accept(listener.fd, nullptr, nullptr);
    const std::size_t bytes = std::min(size, SENT_AT_ONCE_BYTES);
    require(bytes == 0 || send(server, data, bytes, MSG_NOSIGNAL) == static_cast<ssize_t>(bytes));
    close(server);

    // The end of the connection ends every wait, so a timeout is a fault of the client.
    comm_socket_v4_packet* reply = nullptr;
    error = comm_socket_v4_wait_reply(connection, 1, TIMEOUT_US, &reply);
    require((error == COMM_SOCKET_V4_OK) == (reply != nullptr));
    require(error == COMM_SOCKET_V4_OK || error == COMM_SOCKET_V4_BROKEN_FRAME ||
            error == COMM_SOCKET_V4_CLOSED);
    if (reply != nullptr) {
        require(reply->request_id == 1 && (reply->flags & COMM_SOCKET_V4_REQUEST) == 0);
        read_all_of(reply);
    }
    comm_socket_v4_packet_release(reply);
    comm_socket_v4_disconnect(connection);
    return 0;
}
