#include "tests/support/rtmp_client.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>

#include "tests/support/test_failure.h"

namespace {

constexpr std::size_t HANDSHAKE_BLOCK = 1536;
constexpr std::uint32_t COMMAND_CSID = 3;
constexpr std::uint32_t AUDIO_CSID = 4;
constexpr std::uint32_t VIDEO_CSID = 6;

sockaddr_in ipv4_address(const std::string& host, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) {
        throw TestFailure("not an IPv4 address: " + host);
    }
    return address;
}

}  // namespace

RtmpClient::RtmpClient(const ClientOptions& options)
    : ClientSocket(checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket")) {
    const int on = 1;
    checked(setsockopt(descriptor(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on), "TCP_NODELAY");
    if (options.receive_buffer_bytes > 0) {
        checked(setsockopt(descriptor(), SOL_SOCKET, SO_RCVBUF, &options.receive_buffer_bytes, sizeof(int)),
                "SO_RCVBUF");
    }
    if (!options.local_address.empty()) {
        const sockaddr_in local = ipv4_address(options.local_address, 0);
        checked(bind(descriptor(), reinterpret_cast<const sockaddr*>(&local), sizeof local), "bind");
    }
    const sockaddr_in peer = ipv4_address(options.server, options.port);
    checked(connect(descriptor(), reinterpret_cast<const sockaddr*>(&peer), sizeof peer),
            "connect to the server");
    checked(fcntl(descriptor(), F_SETFL, O_NONBLOCK), "O_NONBLOCK");
}

HandshakeReply RtmpClient::handshake(const HandshakeOptions& options) {
    const Bytes greeting = bytes_of({3}) + options.c1;
    std::size_t offset = 0;
    for (const std::size_t piece : options.pieces) {
        send_bytes(std::string_view(greeting).substr(offset, piece));
        offset += piece;
    }
    send_bytes(std::string_view(greeting).substr(offset));
    HandshakeReply reply;
    reply.s0 = read_bytes(1);
    reply.s1 = read_bytes(HANDSHAKE_BLOCK);
    reply.s2 = read_bytes(HANDSHAKE_BLOCK);
    Bytes c2 = reply.s1;
    if (options.change_c2) {
        options.change_c2(c2);
    }
    send_bytes(c2);
    return reply;
}

void RtmpClient::send_message(const OutMessage& message) {
    send_bytes(chunked(message, send_chunk_bytes));
    if (message_ends != nullptr) {
        message_ends->push_back(bytes_sent());
    }
}

void RtmpClient::send_in_pieces(std::string_view bytes, std::size_t piece_bytes) {
    for (std::size_t offset = 0; offset < bytes.size(); offset += piece_bytes) {
        send_bytes(bytes.substr(offset, piece_bytes));
    }
}

void RtmpClient::set_chunk_size(std::uint32_t chunk_bytes) {
    send_message({.type = MSG_SET_CHUNK_SIZE, .payload = be32(chunk_bytes), .csid = CONTROL_CSID});
    send_chunk_bytes = chunk_bytes;
}

void RtmpClient::send_command(const Bytes& payload, std::uint32_t csid, std::uint32_t stream_id) {
    send_message({.type = MSG_COMMAND, .payload = payload, .csid = csid, .stream_id = stream_id});
}

void RtmpClient::send_connect(std::string_view app, double transaction_id) {
    send_command(amf_string("connect") + amf_number(transaction_id) + amf_object({{"app", amf_string(app)}}),
                 COMMAND_CSID);
}

void RtmpClient::send_create_stream(double transaction_id) {
    send_command(amf_string("createStream") + amf_number(transaction_id) + amf_null(), COMMAND_CSID);
}

void RtmpClient::send_publish(std::string_view name, double transaction_id, std::string_view type) {
    send_command(
        amf_string("publish") + amf_number(transaction_id) + amf_null() + amf_string(name) + amf_string(type),
        COMMAND_CSID, media_stream_id);
}

void RtmpClient::send_play(std::string_view name, double transaction_id) {
    send_command(amf_string("play") + amf_number(transaction_id) + amf_null() + amf_string(name),
                 COMMAND_CSID, media_stream_id);
}

void RtmpClient::send_audio(std::uint32_t timestamp, const Bytes& payload) {
    send_message({.type = MSG_AUDIO,
                  .payload = payload,
                  .csid = AUDIO_CSID,
                  .timestamp = timestamp,
                  .stream_id = media_stream_id});
}

void RtmpClient::send_video(std::uint32_t timestamp, const Bytes& payload) {
    send_message({.type = MSG_VIDEO,
                  .payload = payload,
                  .csid = VIDEO_CSID,
                  .timestamp = timestamp,
                  .stream_id = media_stream_id});
}

void RtmpClient::send_data(const Bytes& payload) {
    send_message({.type = MSG_DATA, .payload = payload, .csid = AUDIO_CSID, .stream_id = media_stream_id});
}

void RtmpClient::send_metadata(const Bytes& value) {
    send_data(amf_string("@setDataFrame") + amf_string("onMetaData") + value);
}

void RtmpClient::close_with_reset() {
    const linger at_once{1, 0};
    checked(setsockopt(descriptor(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once), "SO_LINGER");
    close();
}

std::string RtmpClient::local_address() const {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    std::array<char, INET_ADDRSTRLEN> text{};
    checked(getsockname(descriptor(), reinterpret_cast<sockaddr*>(&address), &length), "getsockname");
    inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
    return std::string(text.data()) + ":" + std::to_string(ntohs(address.sin_port));
}
