// Finds the processes that listen on the server's RTMP port, from /proc.
//
// A second server started by mistake takes over the control socket. If the same user runs it, it also shares
// the port, and players may reach one server while their publisher is connected to the other. The first
// server prints "Lost server socket". Neither server reports that the port is shared.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/v9_rtmp_ctl/failure.h"

constexpr std::uint16_t RTMP_PORT = 1935;

// A listening socket, from a table such as /proc/net/tcp.
struct ListeningSocket {
    std::uint64_t inode = 0;
    unsigned uid = 0;
    bool is_ipv6 = false;

    bool operator==(const ListeningSocket&) const = default;
};

// Returns the listening sockets of the port. Unreadable lines are skipped.
[[nodiscard]] std::vector<ListeningSocket> find_listening(std::string_view table, std::uint16_t port);

// The process at the other end of a Unix socket; pid is 0 if this process cannot see it.
struct Peer {
    pid_t pid = 0;
    uid_t uid = 0;
};
[[nodiscard]] std::optional<Peer> find_peer(int fd);

struct PortCheck {
    std::optional<std::vector<unsigned>> listeners;  // process ids, ascending; empty if unknown
    std::vector<std::string> warnings;               // problems found
    std::string gap;                                 // what is unknown, with advice; empty if nothing
};

// Checks the port in the network namespace of the answering server.
[[nodiscard]] PortCheck check_port(const Peer& answering);

// Explains a failed connection to the control socket. If nothing listens there and it is the server's default
// path, also says which process listens on the port anyway, and how to restore its socket.
[[nodiscard]] Failure explain_no_connection(const std::string& socket_path, const Failure& failure);
