#include "tools/v9_rtmp_ctl/control_client.h"

#include <comm_socket_v4.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <memory>
#include <thread>

namespace {

constexpr std::chrono::milliseconds RATE_WINDOW{1000};

struct PacketRelease {
    void operator()(comm_socket_v4_packet* packet) const { comm_socket_v4_packet_release(packet); }
};
using PacketHandle = std::unique_ptr<comm_socket_v4_packet, PacketRelease>;

// Returns null if the request exceeds a limit.
PacketHandle make_packet(const Request& request, bool async) {
    PacketHandle packet(comm_socket_v4_packet_create());
    comm_socket_v4_packet* const p = packet.get();
    if (comm_socket_v4_packet_begin_writing(p, 0, request.command.c_str(), "") != 0) {
        return nullptr;
    }
    for (const std::string& argument : request.arguments) {
        if (comm_socket_v4_packet_write_argv_bytes(p, argument.data(), argument.size()) != 0) {
            return nullptr;
        }
    }
    if (comm_socket_v4_packet_write_end(p) != 0) {
        return nullptr;
    }
    comm_socket_v4_packet_set_async(p, async ? 1 : 0);
    return packet;
}

Reply read_reply(const comm_socket_v4_packet* packet) {
    Reply reply;
    reply.status = packet->status;
    reply.command.assign(comm_socket_v4_packet_get_command(packet),
                         comm_socket_v4_packet_get_command_length(packet));
    reply.message.assign(comm_socket_v4_packet_get_message(packet),
                         comm_socket_v4_packet_get_message_length(packet));
    const std::size_t count = comm_socket_v4_packet_get_pair_count(packet);
    for (std::size_t i = 0; i < count; ++i) {
        reply.pairs.emplace_back(std::string(comm_socket_v4_packet_get_pair_name(packet, i),
                                             comm_socket_v4_packet_get_pair_name_length(packet, i)),
                                 std::string(comm_socket_v4_packet_get_pair_value(packet, i),
                                             comm_socket_v4_packet_get_pair_value_length(packet, i)));
    }
    return reply;
}

bool has_been_closed(int fd) {
    pollfd ended{fd, POLLRDHUP, 0};
    return poll(&ended, 1, 0) > 0;
}

}  // namespace

std::uint64_t longest_reply_us(std::uint64_t silence_us) {
    constexpr std::uint64_t USUAL_US = 60000000;
    return std::max(2 * silence_us, USUAL_US);
}

ControlClient::ControlClient(std::string path, std::uint64_t silence)
    : socket_path(std::move(path)), silence_us(silence), total_us(longest_reply_us(silence)) {}

ControlClient::~ControlClient() {
    disconnect();
}

void ControlClient::disconnect() {
    connection = comm_socket_v4_disconnect(connection);
    awaited_ids.clear();
}

std::optional<Failure> ControlClient::fail(comm_socket_v4_error error) {
    disconnect();
    return error == COMM_SOCKET_V4_TIMEOUT ? no_answer(silence_us) : describe_failure(error, socket_path);
}

std::optional<Failure> ControlClient::fail_to_wait(comm_socket_v4_error error, std::uint64_t began_us) {
    if (error == COMM_SOCKET_V4_TIMEOUT && clock_us() - began_us >= total_us) {
        disconnect();
        return answer_too_long(total_us);
    }
    return fail(error);
}

std::optional<Failure> ControlClient::connect() {
    if (awaited_ids.empty() && has_been_closed(fd())) {
        disconnect();
    }
    if (connection != nullptr) {
        return std::nullopt;
    }
    comm_socket_v4_error error = COMM_SOCKET_V4_OK;
    connection = comm_socket_v4_connect(socket_path.c_str(), silence_us, &error);
    return connection == nullptr ? fail(error) : std::nullopt;
}

std::optional<Failure> ControlClient::send(const std::vector<Request>& requests, bool async) {
    if (std::optional<Failure> failure = connect()) {
        return failure;
    }
    std::vector<PacketHandle> packets;
    std::vector<comm_socket_v4_packet*> pointers;
    for (const Request& request : requests) {
        packets.push_back(make_packet(request, async));
        pointers.push_back(packets.back().get());
        if (packets.back() == nullptr) {
            return fail(COMM_SOCKET_V4_TOO_LARGE);
        }
    }
    const comm_socket_v4_error error =
        comm_socket_v4_send_requests(connection, pointers.data(), pointers.size(), silence_us);
    if (error != COMM_SOCKET_V4_OK) {
        return fail(error);
    }
    if (!async) {
        for (const PacketHandle& packet : packets) {
            awaited_ids.push_back(packet->request_id);
        }
    }
    return std::nullopt;
}

std::optional<Failure> ControlClient::call_all(const std::vector<Request>& requests,
                                               std::vector<Reply>& replies) {
    if (std::optional<Failure> failure = send(requests, false)) {
        return failure;
    }
    // The server disconnects a client that does not read, so replies are processed only after all
    // have arrived.
    std::vector<PacketHandle> answers;
    while (!awaited_ids.empty()) {
        const std::uint64_t began_us = clock_us();
        comm_socket_v4_packet* answer = nullptr;
        const comm_socket_v4_error error =
            comm_socket_v4_wait_reply_within(connection, awaited_ids.front(), silence_us, total_us, &answer);
        if (error != COMM_SOCKET_V4_OK) {
            return fail_to_wait(error, began_us);
        }
        awaited_ids.pop_front();
        answers.emplace_back(answer);
    }
    replies.clear();
    for (PacketHandle& answer : answers) {
        replies.push_back(read_reply(answer.get()));
        answer.reset();
    }
    return std::nullopt;
}

std::optional<Failure> ControlClient::call(const Request& request, Reply& reply) {
    std::vector<Reply> replies;
    if (std::optional<Failure> failure = call_all({request}, replies)) {
        return failure;
    }
    reply = std::move(replies.front());
    return std::nullopt;
}

std::optional<Failure> ControlClient::send_async(const Request& request) {
    return send({request}, true);
}

std::optional<Failure> ControlClient::start(const std::vector<Request>& requests) {
    return send(requests, false);
}

std::optional<Failure> ControlClient::poll_reply(Reply& reply, bool& found) {
    comm_socket_v4_packet* answer = nullptr;
    const comm_socket_v4_error error = comm_socket_v4_wait_reply(connection, awaited_ids.front(), 0, &answer);
    found = error == COMM_SOCKET_V4_OK;
    if (error == COMM_SOCKET_V4_TIMEOUT) {
        return std::nullopt;
    }
    if (!found) {
        return fail(error);
    }
    const PacketHandle handle(answer);
    awaited_ids.pop_front();
    reply = read_reply(answer);
    return std::nullopt;
}

std::uint64_t clock_us() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

Request list_request(const std::string& mode) {
    Request request{"list connections", {}};
    if (!mode.empty()) {
        request.arguments.push_back(mode);
    }
    return request;
}

std::optional<Failure> read_listing(const Reply& reply, Listing& listing, std::size_t longest_name_bytes) {
    listing.connections.clear();
    if (reply.status != COMM_SOCKET_V4_STATUS_SUCCESS) {
        return refused_by_server(reply.message);
    }
    for (const auto& [name, value] : reply.pairs) {
        if (name != "connection") {
            continue;
        }
        std::optional<Connection> connection = parse_connection_line(value);
        if (!connection) {
            return unreadable_reply("'" + value.substr(0, 200) + "' is not a valid listing line");
        }
        cut_name(*connection, longest_name_bytes);
        listing.connections.push_back(std::move(*connection));
    }
    return std::nullopt;
}

std::optional<Failure> take_listing(ControlClient& client, const std::string& mode, Listing& listing,
                                    std::size_t longest_name_bytes) {
    Reply reply;
    if (std::optional<Failure> failure = client.call(list_request(mode), reply)) {
        return failure;
    }
    listing.taken_us = clock_us();
    return read_listing(reply, listing, longest_name_bytes);
}

std::optional<Failure> take_listing_with_rates(ControlClient& client, const std::string& mode,
                                               Listing& listing) {
    Listing before;
    if (std::optional<Failure> failure = take_listing(client, mode, before)) {
        return failure;
    }
    std::this_thread::sleep_for(RATE_WINDOW);
    if (std::optional<Failure> failure = take_listing(client, mode, listing)) {
        return failure;
    }
    add_rates(before, listing);
    return std::nullopt;
}
