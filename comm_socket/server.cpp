// The server handle: the listening socket and its path, the clients, and the order of their turns.
#include <comm_socket_v4.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <iterator>
#include <list>
#include <memory>
#include <string>
#include <utility>

#include "comm_socket/client_link.h"
#include "comm_socket/clock.h"
#include "comm_socket/errors.h"
#include "comm_socket/packet.h"
#include "comm_socket/wire.h"

namespace {

constexpr mode_t SOCKET_MODE = 0660;
constexpr int BACKLOG = 128;
constexpr int ACCEPTS_PER_IDLE = 128;
constexpr std::size_t READ_BYTES_PER_IDLE = 8388608;   // all clients together
constexpr std::size_t WRITE_BYTES_PER_IDLE = 8388608;  // all clients together

using ClientList = std::list<comm_socket_v4_client>;

}  // namespace

// Clients are spliced between the lists of their server, so pointers to them stay valid.
struct comm_socket_v4_client {
    comm_socket_v4_client(comm_socket_v4* owner, int fd) : server(owner), link(fd) {}

    comm_socket_v4* server;
    std::shared_ptr<std::size_t> unreleased = std::make_shared<std::size_t>(0);  // requests handed out
    // Declared after unreleased: nothing may throw once the link owns the socket.
    comm_socket::ClientLink link;
    std::uint64_t last_turn = 0;  // value of server->turns at the client's last turn; 0: none yet
    bool announced = false;       // returned by accept_connection, so the caller must free it
    ClientList* home = nullptr;
    ClientList::iterator position;
};

struct comm_socket_v4 {
    int listen_fd = -1;
    std::string path;
    dev_t device = 0;  // identity of the socket at path, to detect another server's socket
    ino_t inode = 0;

    //   clients    connected
    //   left       disconnected; has requests that wait or are being answered
    //   gone       has no requests left; get_disconnected_client has yet to return it
    //   returned   returned by get_disconnected_client; the caller has not freed it
    //   forgotten  has no requests left, and the caller need not free it: freed by the next idle
    //
    //   clients -> left -> gone -> returned      if accept_connection returned it
    //   clients -> left -> forgotten             otherwise
    //
    // The first client of clients, and of left, has waited longest for a request to be handed out.
    ClientList clients;
    ClientList left;
    ClientList gone;
    ClientList returned;
    ClientList forgotten;
    bool is_turn_of_left = false;
    bool has_served_connected = false;  // since the last idle
    bool begins_with_latest = false;    // the next turn of a connected client goes to the latest one
    // begins_with_latest in the last round that gave a connected client a turn
    bool began_with_latest = false;
    std::uint64_t turns = 0;  // turns given by idle so far

    comm_socket::HeldRequests held;
    std::size_t handed_out = 0;        // since the last idle
    std::uint64_t round_began_us = 0;  // time of the last idle
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

// Returns a listening socket at address. On failure returns -1 with errno set and leaves no socket of this
// server at the path.
int listen_at(const sockaddr_un& address, struct stat* identity) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    // Set the mode on the socket first, so that the path never has wider permissions.
    bool is_bound = false;
    if (fchmod(fd, SOCKET_MODE) == 0 && (unlink(address.sun_path) == 0 || errno == ENOENT) &&
        bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        is_bound = true;
        // Then set it on the path, because bind applied the umask.
        if (chmod(address.sun_path, SOCKET_MODE) == 0 && lstat(address.sun_path, identity) == 0 &&
            listen(fd, BACKLOG) == 0) {
            return fd;
        }
    }
    const int error = errno;
    if (is_bound) {
        unlink(address.sun_path);
    }
    close(fd);
    return comm_socket::refuse(error);
}

// Moves disconnected clients from clients to left. Call before checking whether there is room for
// new clients.
void move_disconnected_to_left(comm_socket_v4* server) {
    for (auto next = server->clients.begin(); next != server->clients.end();) {
        comm_socket_v4_client* client = &*next++;
        if (*client->unreleased == 0) {
            client->link.finish();
        }
        if (!client->link.is_open()) {
            move_client(client, &server->left);
        }
    }
}

// Moves disconnected clients without requests out of left. Call before looking for a client to return.
void settle(comm_socket_v4* server) {
    move_disconnected_to_left(server);
    for (auto next = server->left.begin(); next != server->left.end();) {
        comm_socket_v4_client* client = &*next++;
        if (*client->unreleased == 0 && !client->link.has_complete_frame()) {
            move_client(client, client->announced ? &server->gone : &server->forgotten);
        }
    }
}

// Bounds the requests of disconnected clients by discarding those of the client with the most bytes, so a
// client with many requests loses them before one with few.
void discard_surplus_requests(comm_socket_v4* server) {
    std::size_t bytes = 0;
    for (const auto& client : server->left) {
        bytes += client.link.untaken_bytes();
    }
    std::size_t count = server->left.size();
    while (count > COMM_SOCKET_V4_MAX_LEFT_CLIENTS || bytes > COMM_SOCKET_V4_MAX_LEFT_BYTES) {
        const auto largest = std::max_element(
            server->left.begin(), server->left.end(),
            [](const auto& a, const auto& b) { return a.link.untaken_bytes() < b.link.untaken_bytes(); });
        bytes -= largest->link.untaken_bytes();
        --count;
        largest->link.drop(EPIPE);
    }
}

// Classifies an error of accept4. Returns 0 to continue, 1 to stop for now, -1 if the listening
// socket is unusable.
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
        default:  // no client is waiting, or there is a shortage of descriptors or memory
            return 1;
    }
}

void serve_client(comm_socket_v4_client* client, std::uint64_t stall_limit_us, std::size_t* read_budget,
                  std::size_t* write_budget) {
    if (*read_budget > 0 && *write_budget > 0) {
        client->last_turn = ++client->server->turns;
    }
    try {
        const std::uint64_t now = comm_socket::now_us();
        client->link.write_some(now, stall_limit_us, write_budget);
        client->link.read_some(now, read_budget);
    } catch (const std::exception&) {
        client->link.drop(ENOMEM);
    }
}

// Begins with the client whose last turn was longest ago, so clients that got no budget in one call come
// first in the next.
void serve_clients(comm_socket_v4* server, std::uint64_t stall_limit_us, std::size_t* read_budget,
                   std::size_t* write_budget) {
    std::array<comm_socket_v4_client*, COMM_SOCKET_V4_MAX_CLIENTS> order{};
    const auto end = std::transform(server->clients.begin(), server->clients.end(), order.begin(),
                                    [](auto& client) { return &client; });
    std::sort(order.begin(), end, [](const auto* a, const auto* b) { return a->last_turn < b->last_turn; });
    std::for_each(order.begin(), end,
                  [=](auto* client) { serve_client(client, stall_limit_us, read_budget, write_budget); });
}

// Returns null and closes the socket if there is no room or memory.
comm_socket_v4_client* add_client(comm_socket_v4* server, int fd) {
    if (server->clients.size() >= COMM_SOCKET_V4_MAX_CLIENTS) {
        move_disconnected_to_left(server);
    }
    if (server->clients.size() >= COMM_SOCKET_V4_MAX_CLIENTS) {
        close(fd);
        return nullptr;
    }
    try {
        comm_socket_v4_client* client = &server->clients.emplace_back(server, fd);
        client->home = &server->clients;
        client->position = std::prev(server->clients.end());
        return client;
    } catch (const std::exception&) {
        close(fd);
        return nullptr;
    }
}

// Serves each new client at once: one that has already sent its requests and disconnected makes
// room for the next.
int accept_waiting(comm_socket_v4* server, std::uint64_t stall_limit_us, std::size_t* read_budget,
                   std::size_t* write_budget) {
    if (server->gone.size() + server->returned.size() >= COMM_SOCKET_V4_MAX_UNFREED_CLIENTS) {
        return 0;
    }
    for (int i = 0; i < ACCEPTS_PER_IDLE; ++i) {
        const int fd = accept4(server->listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            const int verdict = judge_accept_error(errno);
            if (verdict != 0) {
                return std::min(verdict, 0);
            }
            continue;
        }
        if (comm_socket_v4_client* client = add_client(server, fd); client != nullptr) {
            serve_client(client, stall_limit_us, read_budget, write_budget);
        }
    }
    return 0;
}

// Returns the client's next request, or null if it is malformed or there is no memory; the client
// is then dropped.
comm_socket_v4_packet* take_request(comm_socket_v4_client* client) {
    comm_socket_v4_packet* packet = nullptr;
    try {
        comm_socket::FrameHead head;
        comm_socket::FrameText text;
        if (!client->link.take_request(&head, &text)) {
            return nullptr;
        }
        packet = comm_socket::make_packet(head, std::move(text));
        comm_socket::hold_request(packet, &client->server->held, client->unreleased);
    } catch (const std::exception&) {
        client->link.drop(ENOMEM);
        return comm_socket_v4_packet_release(packet);
    }
    return packet;
}

bool is_crowded(const comm_socket_v4* server) {
    std::size_t bytes = 0;
    for (const auto& client : server->clients) {
        bytes += client.link.waiting_bytes();
    }
    return bytes > COMM_SOCKET_V4_MAX_TOTAL_WAITING_BYTES;
}

// Whether this round hands out no more requests. A flood of requests, or a few with huge replies, must not
// block the caller. The first request is always handed out, so even the slowest machine makes progress.
bool round_is_over(const comm_socket_v4* server, bool crowded) {
    return server->handed_out != 0 &&
           (crowded || server->handed_out >= COMM_SOCKET_V4_MAX_REQUESTS_PER_IDLE ||
            comm_socket::now_us() - server->round_began_us >= COMM_SOCKET_V4_MAX_US_PER_IDLE);
}

// Whether a request of this client can be handed out now.
bool may_ask(const comm_socket_v4_client& client, bool crowded) {
    return client.link.has_request() && (!crowded || client.link.waiting_bytes() == 0);
}

comm_socket_v4_client* first_in_turn(ClientList* list, bool crowded) {
    const auto found = std::find_if(list->begin(), list->end(),
                                    [crowded](const auto& client) { return may_ask(client, crowded); });
    return found == list->end() ? nullptr : &*found;
}

// In every other round that gives connected clients a turn, the first of these turns goes to the client that
// most recently connected or was answered. This keeps a short request from waiting for all earlier long ones,
// which continue in the rounds in between.
comm_socket_v4_client* next_connected(comm_socket_v4* server, bool crowded) {
    if (!server->begins_with_latest) {
        return first_in_turn(&server->clients, crowded);
    }
    const auto found = std::find_if(server->clients.rbegin(), server->clients.rend(),
                                    [crowded](const auto& client) { return may_ask(client, crowded); });
    return found == server->clients.rend() ? nullptr : &*found;
}

// Connected and disconnected clients take turns. Otherwise many disconnected clients would keep the connected
// ones waiting. Returns null if no client has a request.
comm_socket_v4_client* next_in_turn(comm_socket_v4* server, bool crowded) {
    comm_socket_v4_client* of_left = first_in_turn(&server->left, crowded);
    if (of_left != nullptr && server->is_turn_of_left) {
        return of_left;
    }
    comm_socket_v4_client* connected = next_connected(server, crowded);
    return connected != nullptr ? connected : of_left;
}

// Records that a request of this client is handed out.
void end_turn(comm_socket_v4_client* client) {
    comm_socket_v4* server = client->server;
    ++server->handed_out;
    server->is_turn_of_left = client->home == &server->clients;
    if (server->is_turn_of_left && !server->has_served_connected) {
        server->has_served_connected = true;
        server->began_with_latest = server->begins_with_latest;
        server->begins_with_latest = false;
    }
    move_client(client, client->home);  // to the end: the others go first
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
    if (server == nullptr || path == nullptr || *path == '\0') {
        return comm_socket::refuse(EINVAL);
    }
    if (server->listen_fd >= 0) {
        return comm_socket::refuse(EALREADY);
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::size_t length = std::strlen(path);
    if (length >= sizeof address.sun_path) {
        return comm_socket::refuse(ENAMETOOLONG);
    }
    std::memcpy(address.sun_path, path, length);
    try {
        std::string own_path = path;
        struct stat identity {};
        const int fd = listen_at(address, &identity);
        if (fd < 0) {
            return -1;
        }
        server->listen_fd = fd;
        server->path = std::move(own_path);
        server->device = identity.st_dev;
        server->inode = identity.st_ino;
    } catch (const std::exception&) {
        return comm_socket::refuse(ENOMEM);
    }
    return 0;
}

comm_socket_v4* comm_socket_v4_destroy(comm_socket_v4* server) {
    if (server == nullptr) {
        return nullptr;
    }
    while (!server->held.empty()) {
        comm_socket_v4_packet_release(server->held.front());
    }
    if (server->listen_fd >= 0) {
        // While the socket is open, its inode is in use, so no other server's socket has the same number.
        if (path_is_own(server)) {
            unlink(server->path.c_str());
        }
        close(server->listen_fd);
    }
    delete server;
    return nullptr;
}

int comm_socket_v4_is_open(const comm_socket_v4* server) {
    return server != nullptr && is_listening(server->listen_fd) && path_is_own(server) ? 1 : 0;
}

int comm_socket_v4_idle(comm_socket_v4* server) {
    if (server == nullptr) {
        return comm_socket::refuse(EINVAL);
    }
    if (server->listen_fd < 0) {
        return comm_socket::refuse(EBADF);
    }
    server->handed_out = 0;
    if (server->has_served_connected) {
        server->has_served_connected = false;
        server->begins_with_latest = !server->began_with_latest;
    }
    server->round_began_us = comm_socket::now_us();
    std::size_t read_budget = READ_BYTES_PER_IDLE;
    std::size_t write_budget = WRITE_BYTES_PER_IDLE;
    const std::uint64_t stall_limit_us =
        is_crowded(server) ? COMM_SOCKET_V4_CROWD_TIMEOUT_US : COMM_SOCKET_V4_CLIENT_TIMEOUT_US;
    serve_clients(server, stall_limit_us, &read_budget, &write_budget);
    settle(server);
    server->forgotten.clear();
    // Accept after settling, so departed clients make room; newcomers are served at once.
    const int result = accept_waiting(server, stall_limit_us, &read_budget, &write_budget);
    const int error = errno;
    move_disconnected_to_left(server);
    discard_surplus_requests(server);
    return result == 0 ? 0 : comm_socket::refuse(error);
}

void comm_socket_v4_flush(comm_socket_v4* server, uint64_t deadline_us) {
    if (server == nullptr) {
        return;
    }
    for (;;) {
        std::array<comm_socket_v4_client*, COMM_SOCKET_V4_MAX_CLIENTS> waiting{};
        std::array<pollfd, COMM_SOCKET_V4_MAX_CLIENTS> entries{};
        nfds_t count = 0;
        for (auto& client : server->clients) {
            if (client.link.waiting_bytes() != 0) {
                entries[count] = {client.link.descriptor(), POLLOUT, 0};
                waiting[count++] = &client;
            }
        }
        const int left_ms = comm_socket::poll_time_left_ms(deadline_us);
        if (count == 0 || left_ms == 0) {
            return;
        }
        const int ready = poll(entries.data(), count, left_ms);
        if (ready == 0 || (ready < 0 && errno != EINTR)) {
            return;
        }
        for (nfds_t i = 0; ready > 0 && i < count && comm_socket::now_us() < deadline_us; ++i) {
            if (entries[i].revents != 0) {
                std::size_t budget = WRITE_BYTES_PER_IDLE;
                waiting[i]->link.write_some(comm_socket::now_us(), COMM_SOCKET_V4_CLIENT_TIMEOUT_US, &budget);
            }
        }
    }
}

comm_socket_v4_client* comm_socket_v4_accept_connection(comm_socket_v4* server) {
    if (server == nullptr) {
        return nullptr;
    }
    for (ClientList* list : {&server->clients, &server->left}) {
        for (auto& client : *list) {
            if (!client.announced) {
                client.announced = true;
                return &client;
            }
        }
    }
    return nullptr;
}

comm_socket_v4_client* comm_socket_v4_get_disconnected_client(comm_socket_v4* server) {
    if (server == nullptr) {
        return nullptr;
    }
    settle(server);
    if (server->gone.empty()) {
        return nullptr;
    }
    comm_socket_v4_client* client = &server->gone.front();
    move_client(client, &server->returned);
    return client;
}

void comm_socket_v4_free_client(comm_socket_v4_client* client) {
    if (client != nullptr) {
        client->home->erase(client->position);
    }
}

comm_socket_v4_packet* comm_socket_v4_server_get_packet(comm_socket_v4* server,
                                                        comm_socket_v4_client** client) {
    if (client != nullptr) {
        *client = nullptr;
    }
    if (server == nullptr) {
        return nullptr;
    }
    const bool crowded = is_crowded(server);
    if (round_is_over(server, crowded)) {
        return nullptr;
    }
    while (comm_socket_v4_client* candidate = next_in_turn(server, crowded)) {
        comm_socket_v4_packet* packet = take_request(candidate);
        if (packet == nullptr) {
            continue;
        }
        end_turn(candidate);
        if (client != nullptr) {
            *client = candidate;
        }
        return packet;
    }
    return nullptr;
}

int comm_socket_v4_packet_send_to_client(comm_socket_v4_client* client, const comm_socket_v4_packet* packet) {
    if (client == nullptr || packet == nullptr ||
        packet->content->state != comm_socket::PacketState::COMPLETE) {
        return comm_socket::refuse(EINVAL);
    }
    comm_socket::ClientLink& link = client->link;
    if (link.send_error() != 0) {
        return comm_socket::refuse(link.send_error());
    }
    const comm_socket::FrameHead head = comm_socket::head_of(packet);
    if (!comm_socket::within_limits(head, *packet->content->text, comm_socket::REPLY_LIMITS)) {
        return comm_socket::refuse(EINVAL);
    }
    if (!link.can_queue()) {
        return 0;
    }
    try {
        link.queue(comm_socket::OutgoingFrame(head, packet->content->text));
    } catch (const std::exception&) {
        return comm_socket::refuse(ENOMEM);
    }
    return link.send_error() == 0 ? 1 : comm_socket::refuse(link.send_error());
}

void comm_socket_v4_wait_for_server_to_client_writeable(comm_socket_v4_client* client, uint64_t deadline_us) {
    if (client != nullptr) {
        client->link.wait_until_writable(deadline_us);
    }
}
