// The server handle: the listening socket and its path, the clients, and whose turn it is.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <iterator>
#include <list>
#include <memory>
#include <string>
#include <utility>

#include "comm_socket/client_link.h"
#include "comm_socket/clock.h"
#include "comm_socket/packet.h"

namespace {

constexpr mode_t SOCKET_MODE = 0660;
constexpr int BACKLOG = 128;
constexpr int ACCEPTS_PER_IDLE = 128;
constexpr std::size_t READ_BYTES_PER_IDLE = 8388608;   // all clients together
constexpr std::size_t WRITE_BYTES_PER_IDLE = 8388608;  // all clients together

using ClientList = std::list<comm_socket_v4_client>;

int refuse(int error) {
    errno = error;
    return -1;
}

}  // namespace

// Clients move between the lists of their server by splicing, so a pointer to one stays good.
struct comm_socket_v4_client {
    comm_socket_v4_client(comm_socket_v4* owner, int fd) : server(owner), link(fd) {}

    comm_socket_v4* server;
    comm_socket::ClientLink link;
    std::shared_ptr<std::size_t> unreleased = std::make_shared<std::size_t>(0);  // requests handed out
    bool announced = false;  // returned by accept_connection, so the caller is to free it
    ClientList* home = nullptr;
    ClientList::iterator position;
};

struct comm_socket_v4 {
    int listen_fd = -1;
    std::string path;
    dev_t device = 0;  // of the socket at path, remembered to tell it from another server's
    ino_t inode = 0;

    // Those that are disconnected and have nothing left to hand out leave clients:
    //   announced: clients -> gone -> returned (the caller is to free it)
    //   others:    clients -> forgotten -> freed by the next idle
    // A caller may take fewer disconnected clients than come and go, so only those that it accepted wait for it.
    // The first of clients has waited longest for its turn.
    ClientList clients;
    ClientList gone;
    ClientList returned;
    ClientList forgotten;

    comm_socket::HeldRequests held;
    std::size_t handed_out = 0;          // since the last idle
    std::uint64_t service_began_us = 0;  // the last idle
};

namespace {

void move_client(comm_socket_v4_client* client, ClientList* to) {
    to->splice(to->end(), *client->home, client->position);
    client->home = to;
}

bool path_is_own(const comm_socket_v4* server) {
    struct stat found {};
    return lstat(server->path.c_str(), &found) == 0 && S_ISSOCK(found.st_mode) &&
           found.st_dev == server->device && found.st_ino == server->inode;
}

bool is_listening(int fd) {
    int accepts = 0;
    socklen_t length = sizeof accepts;
    return fd >= 0 && getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &accepts, &length) == 0 && accepts != 0;
}

// A listening socket at address; -1 with errno, and then the path is not ours to remove.
int listen_at(const sockaddr_un& address, struct stat* identity) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    // The mode is first set on the socket, so that there is no moment in which the path admits more.
    bool is_bound = false;
    if (fchmod(fd, SOCKET_MODE) == 0 && (unlink(address.sun_path) == 0 || errno == ENOENT) &&
        bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        is_bound = true;
        // And then on the path: binding took away what the umask forbids.
        if (chmod(address.sun_path, SOCKET_MODE) == 0 && lstat(address.sun_path, identity) == 0 &&
            listen(fd, BACKLOG) == 0)
            return fd;
    }
    const int error = errno;
    if (is_bound)
        unlink(address.sun_path);
    close(fd);
    return refuse(error);
}

// Out of clients: those of which nothing is left. Call it before a client is looked for or room is counted.
void settle(comm_socket_v4* server) {
    for (auto next = server->clients.begin(); next != server->clients.end();) {
        comm_socket_v4_client* client = &*next++;
        if (*client->unreleased > 0)
            continue;
        client->link.finish();
        if (client->link.is_open() || client->link.has_complete_frame())
            continue;
        move_client(client, client->announced ? &server->gone : &server->forgotten);
    }
}

// One error of accept4: 0 to go on, 1 to stop for now, -1 the listening socket is unusable.
int judge_accept_error(int error) {
    switch (error) {
        case EINTR:
        case ECONNABORTED:
        case EPROTO:
            return 0;
        case EBADF:
        case EINVAL:
        case ENOTSOCK:
        case EOPNOTSUPP:
        case EFAULT:
            return -1;
        default:  // nobody waits, or descriptors or memory are short just now
            return 1;
    }
}

void add_client(comm_socket_v4* server, int fd) {
    if (server->clients.size() >= COMM_SOCKET_V4_MAX_CLIENTS) {
        close(fd);
        return;
    }
    try {
        comm_socket_v4_client* client = &server->clients.emplace_back(server, fd);
        client->home = &server->clients;
        client->position = std::prev(server->clients.end());
    } catch (const std::exception&) {
        close(fd);
    }
}

int accept_waiting(comm_socket_v4* server) {
    for (int i = 0; i < ACCEPTS_PER_IDLE; i++) {
        if (server->gone.size() + server->returned.size() >= COMM_SOCKET_V4_MAX_UNFREED_CLIENTS)
            return 0;
        const int fd = accept4(server->listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0) {
            add_client(server, fd);
            continue;
        }
        const int verdict = judge_accept_error(errno);
        if (verdict < 0)
            return -1;
        if (verdict > 0)
            return 0;
    }
    return 0;
}

void serve_client(comm_socket_v4_client* client, std::size_t* read_budget, std::size_t* write_budget) {
    try {
        const std::uint64_t now = comm_socket::now_us();
        client->link.write_some(now, write_budget);
        client->link.read_some(now, read_budget);
    } catch (const std::exception&) {
        client->link.drop(ENOMEM);
    }
}

// The next request of this client; null when it has none that is whole and well-formed.
comm_socket_v4_packet* take_request(comm_socket_v4_client* client) {
    comm_socket_v4_packet* packet = nullptr;
    try {
        comm_socket::FrameHead head;
        comm_socket::FrameText text;
        if (!client->link.take_request(&head, &text))
            return nullptr;
        packet = comm_socket::make_packet(head, std::move(text));
        comm_socket::hold_request(packet, &client->server->held, client->unreleased);
    } catch (const std::exception&) {
        client->link.drop(ENOMEM);
        return comm_socket_v4_packet_release(packet);
    }
    return packet;
}

// A flood of requests, or a few with huge replies, must not hold up who services the socket. The first request is
// always handed out, so there is progress on the slowest machine.
bool service_is_over(const comm_socket_v4* server) {
    return server->handed_out >= COMM_SOCKET_V4_MAX_REQUESTS_PER_IDLE ||
           (server->handed_out != 0 &&
            comm_socket::now_us() - server->service_began_us >= COMM_SOCKET_V4_MAX_US_PER_IDLE);
}

std::size_t waiting_bytes(const comm_socket_v4* server) {
    std::size_t bytes = 0;
    for (const auto& client : server->clients)
        bytes += client.link.waiting_bytes();
    return bytes;
}

}  // namespace

comm_socket_v4* comm_socket_v4_create(void) {
    try {
        return new comm_socket_v4;
    } catch (const std::exception&) {
        errno = ENOMEM;
        return nullptr;
    }
}

int comm_socket_v4_create_server(comm_socket_v4* server, const char* path) {
    if (server == nullptr || path == nullptr || *path == '\0')
        return refuse(EINVAL);
    if (server->listen_fd >= 0)
        return refuse(EALREADY);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::size_t length = std::strlen(path);
    if (length >= sizeof address.sun_path)
        return refuse(ENAMETOOLONG);
    std::memcpy(address.sun_path, path, length);
    try {
        std::string own_path = path;
        struct stat identity {};
        const int fd = listen_at(address, &identity);
        if (fd < 0)
            return -1;
        server->listen_fd = fd;
        server->path = std::move(own_path);
        server->device = identity.st_dev;
        server->inode = identity.st_ino;
    } catch (const std::exception&) {
        return refuse(ENOMEM);
    }
    return 0;
}

comm_socket_v4* comm_socket_v4_destroy(comm_socket_v4* server) {
    if (server == nullptr)
        return nullptr;
    while (!server->held.empty())
        comm_socket_v4_packet_release(server->held.front());
    if (server->listen_fd >= 0) {
        // While the socket is open its inode is in use, so no other server's can have the same number.
        if (path_is_own(server))
            unlink(server->path.c_str());
        close(server->listen_fd);
    }
    delete server;
    return nullptr;
}

int comm_socket_v4_is_open(const comm_socket_v4* server) {
    return server != nullptr && is_listening(server->listen_fd) && path_is_own(server) ? 1 : 0;
}

int comm_socket_v4_idle(comm_socket_v4* server) {
    if (server == nullptr)
        return refuse(EINVAL);
    if (server->listen_fd < 0)
        return refuse(EBADF);
    server->handed_out = 0;
    server->service_began_us = comm_socket::now_us();
    std::size_t read_budget = READ_BYTES_PER_IDLE;
    std::size_t write_budget = WRITE_BYTES_PER_IDLE;
    for (auto& client : server->clients)
        serve_client(&client, &read_budget, &write_budget);
    settle(server);
    server->forgotten.clear();
    // Newcomers after that: who has left makes room for them. They are heard at once.
    const std::size_t old_clients = server->clients.size();
    const int result = accept_waiting(server);
    const int error = errno;
    for (auto client = std::next(server->clients.begin(), static_cast<std::ptrdiff_t>(old_clients));
         client != server->clients.end(); ++client)
        serve_client(&*client, &read_budget, &write_budget);
    return result == 0 ? 0 : refuse(error);
}

comm_socket_v4_client* comm_socket_v4_accept_connection(comm_socket_v4* server) {
    if (server == nullptr)
        return nullptr;
    for (auto& client : server->clients) {
        if (!client.announced) {
            client.announced = true;
            return &client;
        }
    }
    return nullptr;
}

comm_socket_v4_client* comm_socket_v4_get_disconnected_client(comm_socket_v4* server) {
    if (server == nullptr)
        return nullptr;
    settle(server);
    if (server->gone.empty())
        return nullptr;
    comm_socket_v4_client* client = &server->gone.front();
    move_client(client, &server->returned);
    return client;
}

void comm_socket_v4_free_client(comm_socket_v4_client* client) {
    if (client != nullptr)
        client->home->erase(client->position);
}

comm_socket_v4_packet* comm_socket_v4_server_get_packet(comm_socket_v4* server,
                                                        comm_socket_v4_client** client) {
    if (client != nullptr)
        *client = nullptr;
    if (server == nullptr || service_is_over(server))
        return nullptr;
    const bool crowded = waiting_bytes(server) > COMM_SOCKET_V4_MAX_TOTAL_WAITING_BYTES;
    for (auto& candidate : server->clients) {
        if (!candidate.link.has_request() || (crowded && candidate.link.waiting_bytes() != 0))
            continue;
        comm_socket_v4_packet* packet = take_request(&candidate);
        if (packet == nullptr)
            continue;
        server->handed_out++;
        move_client(&candidate, &server->clients);  // to the end: the others have their turn first
        if (client != nullptr)
            *client = &candidate;
        return packet;
    }
    return nullptr;
}

int comm_socket_v4_packet_send_to_client(comm_socket_v4_client* client, const comm_socket_v4_packet* packet) {
    if (client == nullptr || packet == nullptr ||
        packet->content->state != comm_socket::PacketState::COMPLETE)
        return refuse(EINVAL);
    comm_socket::ClientLink& link = client->link;
    if (link.send_error() != 0)
        return refuse(link.send_error());
    const comm_socket::FrameHead head = comm_socket::head_of(packet);
    if (!comm_socket::within_limits(head, packet->content->text, comm_socket::REPLY_LIMITS))
        return refuse(EINVAL);
    if (!link.can_queue())
        return 0;
    try {
        link.queue(comm_socket::encode_frame(head, packet->content->text));
    } catch (const std::exception&) {
        return refuse(ENOMEM);
    }
    return link.send_error() == 0 ? 1 : refuse(link.send_error());
}

void comm_socket_v4_wait_for_server_to_client_writeable(comm_socket_v4_client* client, uint64_t deadline_us) {
    if (client != nullptr)
        client->link.wait_until_writable(deadline_us);
}
