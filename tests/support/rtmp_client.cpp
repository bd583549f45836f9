#include "tests/support/rtmp_client.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "tests/support/test_failure.h"

namespace {

constexpr std::size_t HANDSHAKE_BLOCK = 1536;
constexpr std::uint32_t COMMAND_CSID = 3;
constexpr std::uint32_t AUDIO_CSID = 4;
constexpr std::uint32_t VIDEO_CSID = 6;

bool wait_for_events(int fd, short events, TimePoint deadline) {
    pollfd entry{fd, events, 0};
    while (true) {
        const int result = poll(&entry, 1, poll_timeout_ms(deadline));
        if (result > 0) {
            return true;
        }
        if (result == 0 && SteadyClock::now() >= deadline) {
            return false;
        }
        if (result < 0 && errno != EINTR) {
            throw TestFailure(std::string("poll: ") + std::strerror(errno));
        }
    }
}

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

RtmpClient::RtmpClient(const ClientOptions& options) : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const auto require = [this](bool done, const char* step) {
        if (!done) {
            const std::string reason = std::strerror(errno);
            close();
            throw TestFailure(std::string(step) + ": " + reason);
        }
    };
    require(fd >= 0, "socket");
    if (options.receive_buffer_bytes > 0) {
        require(setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &options.receive_buffer_bytes, sizeof(int)) == 0,
                "SO_RCVBUF");
    }
    if (options.send_buffer_bytes > 0) {
        require(setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &options.send_buffer_bytes, sizeof(int)) == 0,
                "SO_SNDBUF");
    }
    if (!options.local_address.empty()) {
        const sockaddr_in local = ipv4_address(options.local_address, 0);
        require(bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0, "bind");
    }
    const int on = 1;
    require(setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0, "TCP_NODELAY");
    const sockaddr_in peer = ipv4_address(options.server, options.port);
    require(connect(fd, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) == 0, "connect to the server");
    require(fcntl(fd, F_SETFL, O_NONBLOCK) == 0, "O_NONBLOCK");
}

RtmpClient::~RtmpClient() {
    close();
}

RtmpClient::RtmpClient(RtmpClient&& other) noexcept
    : media_stream_id(other.media_stream_id),
      fd(std::exchange(other.fd, -1)),
      send_chunk_bytes(other.send_chunk_bytes),
      sent_bytes(other.sent_bytes),
      message_ends(other.message_ends),
      round_trips(other.round_trips),
      read_chunk_bytes(other.read_chunk_bytes),
      buffer(std::move(other.buffer)),
      buffer_start(other.buffer_start),
      buffer_filled(other.buffer_filled),
      peer_closed(other.peer_closed),
      close_kind(other.close_kind) {}

HandshakeReply RtmpClient::handshake(const HandshakeOptions& options) {
    const Bytes greeting = bytes_of({options.c0}) + options.c1;
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

void RtmpClient::send_bytes(std::string_view bytes, Milliseconds wait) {
    if (!try_send_bytes(bytes, wait)) {
        fail("the server closed the connection while it was being sent to");
    }
}

bool RtmpClient::try_send_bytes(std::string_view bytes, Milliseconds wait) {
    const TimePoint deadline = SteadyClock::now() + wait;
    while (!bytes.empty()) {
        const ssize_t count = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count >= 0) {
            sent_bytes += static_cast<std::uint64_t>(count);
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno == EAGAIN) {
            if (!wait_for_events(fd, POLLOUT, deadline)) {
                fail("the server does not read: " + std::to_string(bytes.size()) + " bytes left to send");
            }
        } else if (errno == EPIPE || errno == ECONNRESET) {
            return false;
        } else if (errno != EINTR) {
            fail(std::string("send: ") + std::strerror(errno));
        }
    }
    return true;
}

void RtmpClient::send_message(const OutMessage& message) {
    send_bytes(chunked(message, send_chunk_bytes));
    if (message_ends != nullptr) {
        message_ends->push_back(sent_bytes);
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

Bytes RtmpClient::read_bytes(std::size_t count, Milliseconds wait) {
    const TimePoint deadline = SteadyClock::now() + wait;
    while (buffer.size() - buffer_start < count) {
        if (fill_buffer(deadline) != Fill::SOME) {
            fail("wanted " + std::to_string(count) + " bytes, got " +
                 std::to_string(buffer.size() - buffer_start));
        }
    }
    Bytes result = buffer.substr(buffer_start, count);
    buffer_start += count;
    return result;
}

void RtmpClient::close() {
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

void RtmpClient::close_with_reset() {
    const linger at_once{1, 0};
    if (setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once) != 0) {
        fail(std::string("SO_LINGER: ") + std::strerror(errno));
    }
    close();
}

void RtmpClient::half_close() {
    if (shutdown(fd, SHUT_WR) != 0) {
        fail(std::string("shutdown: ") + std::strerror(errno));
    }
}

std::string RtmpClient::local_address() const {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    std::array<char, INET_ADDRSTRLEN> text{};
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size()) == nullptr) {
        fail("no local address");
    }
    return std::string(text.data()) + ":" + std::to_string(ntohs(address.sin_port));
}

RtmpClient::Fill RtmpClient::fill_buffer(TimePoint deadline) {
    if (buffer_start > buffer.size() / 2) {
        buffer.erase(0, buffer_start);
        buffer_start = 0;
    }
    std::array<char, 65536> chunk{};
    while (!peer_closed) {
        const ssize_t count = recv(fd, chunk.data(), chunk.size(), 0);
        if (count > 0) {
            buffer.append(chunk.data(), static_cast<std::size_t>(count));
            buffer_filled = SteadyClock::now();
            return Fill::SOME;
        }
        if (count == 0 || errno == ECONNRESET || errno == EPIPE) {
            peer_closed = true;
            close_kind = count == 0 ? CloseKind::END_OF_STREAM : CloseKind::RESET;
        } else if (errno == EAGAIN) {
            if (!wait_for_events(fd, POLLIN, deadline)) {
                return Fill::TIMED_OUT;
            }
        } else if (errno != EINTR) {
            fail(std::string("recv: ") + std::strerror(errno));
        }
    }
    return Fill::CLOSED;
}

void RtmpClient::fail(const std::string& what) const {
    throw TestFailure("RTMP client: " + what);
}
