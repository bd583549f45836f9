#include "core/listener.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>

#include "base/diag.h"
#include "core/connection_table.h"

int listen_fd = -1;

namespace {

constexpr std::uint16_t RTMP_PORT = 1935;
constexpr int LISTEN_BACKLOG = 20;

// If a client's link fails silently, its slot is freed after about two minutes, provided that no data is in
// flight to the client. Linux does not probe while sent data is unacknowledged. A player with media in flight
// therefore stays until the kernel gives up retransmitting, about 15 minutes with the default
// net.ipv4.tcp_retries2, and its queue grows until then.
// intended: TCP_USER_TIMEOUT is not set, since it would also drop a player that only pauses.
constexpr int KEEPALIVE_IDLE_S = 60;
constexpr int KEEPALIVE_INTERVAL_S = 10;
constexpr int KEEPALIVE_PROBES = 6;

bool enable_option(int option) ON_MAIN_THREAD {
    const std::int64_t on = 1;  // The kernel reads the first 4 bytes: the low half (little-endian).
    return setsockopt(listen_fd, SOL_SOCKET, option, &on, sizeof on) == 0;
}

bool bind_and_listen() ON_MAIN_THREAD {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(RTMP_PORT);
    if (bind(listen_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return refuse("Cannot bind socket\n");
    }
    if (listen(listen_fd, LISTEN_BACKLOG) != 0) {
        return refuse("Cannot listen\n");
    }
    return true;
}

// Ignores errors: the socket works without the option.
void set_client_option(int fd, int level, int option, int value) {
    static_cast<void>(setsockopt(fd, level, option, &value, sizeof value));
}

void set_client_options(int fd) {
    // Send the end of a message without waiting for an acknowledgement.
    set_client_option(fd, IPPROTO_TCP, TCP_NODELAY, 1);
    set_client_option(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
    set_client_option(fd, IPPROTO_TCP, TCP_KEEPIDLE, KEEPALIVE_IDLE_S);
    set_client_option(fd, IPPROTO_TCP, TCP_KEEPINTVL, KEEPALIVE_INTERVAL_S);
    set_client_option(fd, IPPROTO_TCP, TCP_KEEPCNT, KEEPALIVE_PROBES);
}

}  // namespace

bool open_listener() {
    listen_fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (listen_fd < 0) {
        free_all_connections();
        return false;
    }
    if (!enable_option(SO_REUSEADDR)) {
        diag("WARNING: IPTV out cannot set SO_REUSEADDR\n");
    }
    if (!enable_option(SO_REUSEPORT)) {
        diag("WARNING: IPTV out cannot set SO_REUSEPORT\n");
    }
    if (!bind_and_listen()) {
        server_shutdown();
        return false;
    }
    return true;
}

bool ensure_listener() {
    return listen_fd >= 0 || open_listener();
}

void accept_connections() {
    if (listen_fd < 0) {
        return;
    }
    sockaddr_in peer{};
    socklen_t peer_length = sizeof peer;
    // The accepted socket is blocking, because the connection's threads wait on it.
    const int fd = accept4(listen_fd, reinterpret_cast<sockaddr*>(&peer), &peer_length, SOCK_CLOEXEC);
    if (fd < 0) {
        return;
    }
    set_client_options(fd);
    if (new_connection(fd, peer_address_text(peer).c_str()) == nullptr) {
        diag("Too many connections, dropping new connection\n");
        close(fd);
        return;
    }
    diag("Accepted connection\n");
}

void server_shutdown() {
    if (listen_fd >= 0) {
        close(listen_fd);
        listen_fd = -1;
    }
    free_all_connections();
}

std::string peer_address_text(const sockaddr_in& peer) {
    std::array<char, 127> text{};
    inet_ntop(AF_INET, &peer.sin_addr, text.data(), text.size());
    if (text[0] == '\0') {
        return {};
    }
    return std::string(text.data()) + ":" + std::to_string(ntohs(peer.sin_port));
}
