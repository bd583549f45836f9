#include "control/control_server.h"

#include <comm_socket_v4.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "base/check.h"
#include "base/clock.h"
#include "base/diag.h"
#include "control/control_commands.h"
#include "core/quit_signals.h"

namespace {

constexpr const char* SOCKET_PATH = "/var/run/v9_rtmp_server.socket";
constexpr std::uint64_t SERVICE_INTERVAL_US = 100000;
constexpr std::uint64_t SEND_WAIT_US = 10000000;
constexpr std::uint64_t FLUSH_WAIT_US = 20000;

comm_socket_v4* comm_server GUARDED_BY(MAIN_THREAD) = nullptr;  // null when dead or closed
std::uint64_t comm_next_service_us GUARDED_BY(MAIN_THREAD) = 0;

// Returns false after printing one line if the socket has failed.
bool socket_is_usable() ON_MAIN_THREAD {
    if (comm_socket_v4_is_open(comm_server) == 0) {
        return refuse("Lost server socket\n");
    }
    if (comm_socket_v4_idle(comm_server) != 0) {
        return refuse("Idle failed: %s", std::strerror(errno));  // intended: no newline
    }
    return true;
}

void send_reply(comm_socket_v4_client* client, const comm_socket_v4_packet* respkt) {
    int sent = 0;
    while ((sent = comm_socket_v4_packet_send_to_client(client, respkt)) == 0) {
        comm_socket_v4_wait_for_server_to_client_writeable(client, monotonic_clock_us() + SEND_WAIT_US);
    }
    if (sent < 0) {
        diag("Unable to send packet: %s\n", std::strerror(errno));
    }
}

void answer(comm_socket_v4_client* client, const comm_socket_v4_packet* request) ON_MAIN_THREAD {
    comm_socket_v4_packet* respkt = comm_socket_v4_packet_create();
    CHECK(respkt != NULL);  // NOLINT(modernize-use-nullptr): operators search for this text
    comm_socket_v4_packet_make_response(respkt);
    comm_socket_v4_packet_set_async(respkt, (request->flags & COMM_SOCKET_V4_ASYNC) != 0 ? 1 : 0);
    respkt->request_id = request->request_id;
    if (run_control_command(request, respkt)) {
        send_reply(client, respkt);
    }
    comm_socket_v4_packet_release(respkt);
}

}  // namespace

bool start_control_server() {
    comm_server = comm_socket_v4_create();
    if (comm_server == nullptr) {
        return refuse("Failed to create comm socket\n");
    }
    if (comm_socket_v4_create_server(comm_server, SOCKET_PATH) != 0) {
        stop_control_server();
        return refuse("Failed to create server socket\n");
    }
    return true;
}

void server_idle() {
    if (comm_server == nullptr) {
        return;
    }
    const std::uint64_t now_us = monotonic_clock_us();
    if (comm_next_service_us > now_us) {
        return;
    }
    comm_next_service_us = now_us + SERVICE_INTERVAL_US;
    if (!socket_is_usable()) {
        stop_control_server();
        return;
    }
    comm_socket_v4_accept_connection(comm_server);  // The library keeps track of its clients.
    if (comm_socket_v4_client* gone = comm_socket_v4_get_disconnected_client(comm_server); gone != nullptr) {
        comm_socket_v4_free_client(gone);
    }

    comm_socket_v4_client* client = nullptr;
    while (comm_socket_v4_packet* request = comm_socket_v4_server_get_packet(comm_server, &client)) {
        if (quit_signals != 0) {
            return;  // The request is freed together with the server handle.
        }
        if ((request->flags & COMM_SOCKET_V4_REQUEST) != 0) {
            answer(client, request);
        }
        comm_socket_v4_packet_release(request);
    }
    comm_socket_v4_flush(comm_server, monotonic_clock_us() + FLUSH_WAIT_US);
}

void stop_control_server() {
    comm_server = comm_socket_v4_destroy(comm_server);
}
