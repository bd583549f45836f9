// Who listens on the server's RTMP port, as /proc tells it.
//
// A second start by mistake takes the control socket, and of the same user it shares the port: players then
// land where their publisher is not. Neither server notices.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/v9_rtmp_ctl/failure.h"

constexpr std::uint16_t RTMP_PORT = 1935;

// A socket that listens, from a table such as /proc/net/tcp.
struct ListeningSocket {
    std::uint64_t inode = 0;
    unsigned uid = 0;

    bool operator==(const ListeningSocket&) const = default;
};

// Those of the port. Lines that cannot be read are passed over.
[[nodiscard]] std::vector<ListeningSocket> find_listening(std::string_view table, std::uint16_t port);

// The process at the other end of a Unix socket; pid is 0 when it is outside of this process's view.
struct Peer {
    pid_t pid = 0;
    uid_t uid = 0;
};
[[nodiscard]] std::optional<Peer> find_peer(int fd);

struct PortCheck {
    std::optional<std::vector<unsigned>>
        listeners;                      // their process ids, ascending; nothing when they are not known
    std::vector<std::string> warnings;  // something is wrong
    std::string gap;                    // what could not be found out, and what helps; empty when all was
};

// Of the network namespace of the server that answers.
[[nodiscard]] PortCheck check_port(const Peer& answering);

// The failure of a connection to the control socket. If nothing listens there and it is the server's own
// path, it also says which process listens on the port all the same, and what brings its socket back.
[[nodiscard]] Failure explain_no_connection(const std::string& socket_path, const Failure& failure);
