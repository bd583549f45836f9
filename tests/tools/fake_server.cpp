#include "tests/tools/fake_server.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>

namespace {

Request read_request(const comm_socket_v4_packet* packet) {
    Request request{comm_socket_v4_packet_get_command(packet), {}};
    for (std::size_t i = 0; i < comm_socket_v4_packet_get_argv_count(packet); ++i) {
        request.arguments.emplace_back(comm_socket_v4_packet_get_argv(packet, i),
                                       comm_socket_v4_packet_get_argv_length(packet, i));
    }
    return request;
}

void send_reply(comm_socket_v4_client* client, std::uint64_t request_id, const Reply& reply) {
    comm_socket_v4_packet* const packet = comm_socket_v4_packet_create();
    comm_socket_v4_packet_make_response(packet);
    packet->request_id = request_id;
    packet->status = reply.status;
    EXPECT_EQ(comm_socket_v4_packet_begin_writing(packet, 0, reply.command.c_str(), reply.message.c_str()),
              0);
    for (const auto& [name, value] : reply.pairs) {
        EXPECT_EQ(comm_socket_v4_packet_write_nv_pair_bytes(packet, name.data(), name.size(), value.data(),
                                                            value.size()),
                  0);
    }
    EXPECT_EQ(comm_socket_v4_packet_write_end(packet), 0);
    EXPECT_GT(comm_socket_v4_packet_send_to_client(client, packet), 0);
    comm_socket_v4_packet_release(packet);
}

}  // namespace

std::string make_directory() {
    std::string name = testing::TempDir() + "/ctl_XXXXXX";
    EXPECT_NE(mkdtemp(name.data()), nullptr);
    return name;
}

FakeServer::FakeServer(Answer answer_function)
    : answer(std::move(answer_function)),
      directory(make_directory()),
      socket_path(directory + "/socket"),
      server(comm_socket_v4_create()) {
    EXPECT_EQ(comm_socket_v4_create_server(server, socket_path.c_str()), 0);
    thread = std::thread([this] { serve(); });
}

FakeServer::~FakeServer() {
    stopping = true;
    thread.join();
    comm_socket_v4_destroy(server);
    std::filesystem::remove_all(directory);
}

void FakeServer::serve() {
    while (!stopping) {
        comm_socket_v4_idle(server);
        comm_socket_v4_accept_connection(server);
        comm_socket_v4_free_client(comm_socket_v4_get_disconnected_client(server));
        comm_socket_v4_client* client = nullptr;
        while (comm_socket_v4_packet* request = comm_socket_v4_server_get_packet(server, &client)) {
            const std::optional<Reply> reply =
                answer(read_request(request), (request->flags & COMM_SOCKET_V4_ASYNC) != 0);
            if (reply) {
                send_reply(client, request->request_id, *reply);
            }
            comm_socket_v4_packet_release(request);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}
