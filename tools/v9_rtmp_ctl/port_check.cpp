#include "tools/v9_rtmp_ctl/port_check.h"

#include <dirent.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <sstream>

#include "tools/v9_rtmp_ctl/parse_number.h"
#include "tools/v9_rtmp_ctl/state_file.h"

namespace {

struct DirectoryClose {
    void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, DirectoryClose>;

std::vector<std::string> split(const std::string& line) {
    std::istringstream words(line);
    std::vector<std::string> fields;
    for (std::string word; words >> word;) {
        fields.push_back(word);
    }
    return fields;
}

// Returns the sockets that listen on the RTMP port in the network namespace of a process: "self" or an id.
// Empty if this process has no permission for that.
std::optional<std::vector<ListeningSocket>> find_listening_of(const std::string& process) {
    std::vector<ListeningSocket> all;
    bool found = false;
    for (const char* const name : {"tcp", "tcp6"}) {
        if (const std::optional<std::string> table = read_file("/proc/" + process + "/net/" + name)) {
            found = true;
            const std::vector<ListeningSocket> sockets = find_listening(*table, RTMP_PORT);
            all.insert(all.end(), sockets.begin(), sockets.end());
        }
    }
    return found ? std::optional(all) : std::nullopt;
}

// Removes the IPv6 sockets if there are others, since the server is IPv4 only. An IPv6 socket of another user
// cannot share the server's port, so it accepts IPv6 clients only. Returns whether a removed socket may also
// take IPv4 clients: the table does not show which do.
bool remove_ipv6_sockets(std::vector<ListeningSocket>& sockets, unsigned server_uid) {
    const auto is_ipv6 = [](const ListeningSocket& socket) { return socket.is_ipv6; };
    if (std::all_of(sockets.begin(), sockets.end(), is_ipv6)) {
        return false;
    }
    const bool may_share = std::any_of(sockets.begin(), sockets.end(), [&](const ListeningSocket& socket) {
        return socket.is_ipv6 && socket.uid == server_uid;
    });
    std::erase_if(sockets, is_ipv6);
    return may_share;
}

std::vector<std::string> entries(const std::string& path) {
    std::vector<std::string> names;
    const Directory directory(opendir(path.c_str()));
    while (directory != nullptr) {
        const dirent* const entry = readdir(directory.get());
        if (entry == nullptr) {
            break;
        }
        names.emplace_back(&entry->d_name[0]);
    }
    return names;
}

bool has_socket(const std::string& process, const std::vector<ListeningSocket>& sockets) {
    const std::string directory = "/proc/" + process + "/fd/";
    for (const std::string& name : entries(directory)) {
        std::array<char, 64> target{};
        const ssize_t length =
            readlink(std::string(directory).append(name).c_str(), target.data(), target.size());
        const std::string_view text(target.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
        const bool found =
            std::any_of(sockets.begin(), sockets.end(), [&text](const ListeningSocket& socket) {
                return text == "socket:[" + std::to_string(socket.inode) + "]";
            });
        if (found) {
            return true;
        }
    }
    return false;
}

// Returns the processes that hold one of the sockets, as far as their descriptors are readable.
std::vector<unsigned> find_owners(const std::vector<ListeningSocket>& sockets) {
    std::vector<unsigned> owners;
    for (const std::string& name : entries("/proc")) {
        unsigned pid = 0;
        if (parse_number(name, pid) && has_socket(name, sockets)) {
            owners.push_back(pid);
        }
    }
    std::sort(owners.begin(), owners.end());
    return owners;
}

std::string process_list(const std::vector<unsigned>& pids) {
    std::string list;
    for (const unsigned pid : pids) {
        list += (list.empty() ? "" : ", ") + std::to_string(pid);
    }
    return list;
}

std::string port_text() {
    return "port " + std::to_string(RTMP_PORT);
}

// "process 12 listens on port 1935", "processes 12, 13 listen on ..."; without owners, "a process of another
// user listens on ...". adverb stands before the verb.
std::string who_listens(const std::vector<unsigned>& owners, const std::string& adverb = "") {
    const bool several = owners.size() > 1;
    const std::string who = owners.empty() ? "a process of another user"
                            : several      ? "processes " + process_list(owners)
                                           : "process " + process_list(owners);
    return who + adverb + (several ? " listen on " : " listens on ") + port_text();
}

std::string many_listeners(const std::vector<ListeningSocket>& sockets, const std::vector<unsigned>& owners,
                           const Peer& answering) {
    const std::string who = owners.size() == sockets.size()
                                ? std::to_string(owners.size()) + " processes listen on " + port_text() +
                                      " (" + process_list(owners) + ")"
                                : std::to_string(sockets.size()) + " sockets listen on " + port_text();
    return who +
           ", and the kernel distributes clients among them: a player may reach a different process from "
           "its publisher. " +
           "The control socket belongs to process " + std::to_string(answering.pid) +
           ". Stop all but one. If the one left is not that process, restart it.";
}

// The directory of the service's socket; see packaging/tmpfiles.
constexpr const char* SERVICE_DIRECTORY = "/run/v9-rtmp-server";

// If no server answers: describes a process that listens on the port anyway. Empty if there is none.
std::string describe_listeners_without_answer() {
    const std::optional<std::vector<ListeningSocket>> sockets = find_listening_of("self");
    if (!sockets || sockets->empty()) {
        return "";
    }
    return who_listens(find_owners(*sockets), " still") +
           ". If that is a v9_rtmp_server, a second instance took its control socket: " +
           (access(SERVICE_DIRECTORY, F_OK) == 0
                ? "if the server runs as the service, run 'systemd-tmpfiles --create v9-rtmp-server.conf' as "
                  "root to restore the socket; if not, stop the server, then start it again."
                : "stop the server that still listens, then start it again.");
}

}  // namespace

std::vector<ListeningSocket> find_listening(std::string_view table, std::uint16_t port) {
    constexpr std::size_t LOCAL_ADDRESS = 1;
    constexpr std::size_t STATE = 3;
    constexpr std::size_t UID = 7;
    constexpr std::size_t INODE = 9;
    constexpr std::string_view LISTEN = "0A";
    constexpr int HEX = 16;
    constexpr std::size_t IPV6_DIGITS = 32;
    std::vector<ListeningSocket> sockets;
    std::istringstream lines{std::string(table)};
    for (std::string line; std::getline(lines, line);) {
        const std::vector<std::string> fields = split(line);
        if (fields.size() <= INODE || fields[STATE] != LISTEN) {
            continue;
        }
        const std::string_view local = fields[LOCAL_ADDRESS];
        const std::size_t address_digits = local.rfind(':');
        std::uint16_t local_port = 0;
        ListeningSocket socket;
        socket.is_ipv6 = address_digits == IPV6_DIGITS;
        if (parse_number(local.substr(address_digits + 1), local_port, HEX) && local_port == port &&
            parse_number(fields[UID], socket.uid) && parse_number(fields[INODE], socket.inode)) {
            sockets.push_back(socket);
        }
    }
    return sockets;
}

std::optional<Peer> find_peer(int fd) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
        return std::nullopt;
    }
    return Peer{credentials.pid, credentials.uid};
}

PortCheck check_port(const Peer& answering) {
    PortCheck check;
    const std::string pid = std::to_string(answering.pid);
    std::optional<std::vector<ListeningSocket>> sockets =
        answering.pid > 0 ? find_listening_of(pid) : std::nullopt;
    if (!sockets) {
        check.gap = "It is not known which process listens on " + port_text() +
                    ": /proc does not show the process that answers. Run this where the server runs.";
        return check;
    }
    const bool ipv6_may_share = remove_ipv6_sockets(*sockets, answering.uid);
    const std::vector<unsigned> owners = find_owners(*sockets);
    const bool answering_listens =
        std::find(owners.begin(), owners.end(), static_cast<unsigned>(answering.pid)) != owners.end();
    // Sockets without a visible owner belong to processes whose descriptors this user may not read.
    const bool owners_known = owners.size() >= sockets->size();
    if (owners_known) {
        check.listeners = owners;
    }
    if (sockets->size() > 1) {
        check.warnings.push_back(many_listeners(*sockets, owners, answering));
    } else if (sockets->empty()) {
        check.warnings.push_back("the server that answers, process " + pid + ", does not listen on " +
                                 port_text() + ". Restart it.");
    } else if (!answering_listens && (owners_known || sockets->front().uid != answering.uid)) {
        check.warnings.push_back(
            "process " + pid + " answers, but " + who_listens(owners) +
            ": drops and listings do not include the clients there. Stop both and start one.");
    } else if (!answering_listens) {
        check.gap = "It is not known whether the process that answers, " + pid +
                    ", is the one that listens on " + port_text() +
                    ": this user may not read its descriptors. Run this again with sudo.";
    } else if (ipv6_may_share) {
        check.gap = "It is not known whether another socket on " + port_text() +
                    " takes IPv6 clients only: it belongs to the server's user. Run the program that owns "
                    "the socket as another user.";
    }
    return check;
}

Failure explain_no_connection(const std::string& socket_path, const Failure& failure) {
    return failure.exit_code == ExitCode::NOT_RUNNING && is_default_socket(socket_path)
               ? no_server(socket_path, describe_listeners_without_answer())
               : failure;
}
